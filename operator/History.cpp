// The history's files: one for each month, JSON lines, appended to and read. Who is told of them is
// not decided here.
#include "History.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "Escape.h"
#include "Files.h"
#include "Output.h"
#include "Package.h"

namespace qvo {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

constexpr char kHistoryPrefix[] = "history-";
constexpr char kSuffix[] = ".jsonl";
constexpr size_t kMonthLength = 7;  // "2026-11"
constexpr size_t kMostText = 500;

struct TextField {
    const char* key;
    std::string HistoryEntry::*member;
};

constexpr TextField kTexts[] = {
    {"time", &HistoryEntry::time},       {"run", &HistoryEntry::run},
    {"who", &HistoryEntry::who},         {"card", &HistoryEntry::card},
    {"product", &HistoryEntry::product}, {"serial", &HistoryEntry::serial},
    {"from", &HistoryEntry::from},       {"to", &HistoryEntry::to},
    {"result", &HistoryEntry::result},   {"reason", &HistoryEntry::reason},
    {"package", &HistoryEntry::package}, {"sha256", &HistoryEntry::sha256},
    {"message", &HistoryEntry::message},
};

[[noreturn]] void Fail(const std::string& path, int error) {
    throw qvf::Mistake(path + ": the history cannot be written: " + std::strerror(error) +
                       "; --log names another folder");
}

bool IsMonth(const std::string& name) {
    const std::string month = name.substr(std::min(name.size(), sizeof kHistoryPrefix - 1));
    return name.starts_with(kHistoryPrefix) && month.size() == kMonthLength + sizeof kSuffix - 1 &&
           name.ends_with(kSuffix) && month[4] == '-' &&
           month.find_first_not_of("0123456789-") == kMonthLength;
}

std::vector<std::string> Months(const std::string& folder) {
    std::vector<std::string> months;
    std::error_code error;
    for (fs::directory_iterator at(folder, error), end; !error && at != end; at.increment(error))
        if (IsMonth(at->path().filename().string())) months.push_back(at->path().string());
    if (error && error != std::errc::no_such_file_or_directory)
        throw qvf::Mistake(folder + ": the history cannot be read: " + error.message());
    std::sort(months.begin(), months.end());
    return months;
}

// The open file, locked until this object is destroyed.
class LockedFile {
  public:
    explicit LockedFile(const std::string& path) : m_path(path) {
        m_fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
        if (m_fd < 0) Fail(path, errno);
        struct flock whole = {};
        whole.l_type = F_WRLCK;
        whole.l_whence = SEEK_SET;
        while (fcntl(m_fd, F_OFD_SETLKW, &whole) != 0)
            if (errno != EINTR)
                break;  // a file system without locks: the run holds the machine's lock
    }
    ~LockedFile() { close(m_fd); }
    LockedFile(const LockedFile&) = delete;
    LockedFile& operator=(const LockedFile&) = delete;

    off_t Length() const {
        struct stat status;
        if (fstat(m_fd, &status) != 0) Fail(m_path, errno);
        return status.st_size;
    }
    // The file gets all of it, or nothing.
    void Append(const std::string& line) const {
        const off_t before = Length();
        std::string text = EndsWithLine(before) ? line : "\n" + line;
        int error = 0;
        for (size_t done = 0; done < text.size() && error == 0;) {
            const ssize_t n = pwrite(m_fd, text.data() + done, text.size() - done,
                                     before + static_cast<off_t>(done));
            if (n > 0) done += static_cast<size_t>(n);
            if (n == 0 || (n < 0 && errno != EINTR)) error = n == 0 ? ENOSPC : errno;
        }
        if (error == 0 && fsync(m_fd) != 0) error = errno;
        if (error == 0) return;
        if (ftruncate(m_fd, before) != 0) error = errno;
        Fail(m_path, error);
    }

  private:
    // Whether the last line is complete; a line that was cut off stays a separate line.
    bool EndsWithLine(off_t length) const {
        char last = '\n';
        return length == 0 || pread(m_fd, &last, 1, length - 1) != 1 || last == '\n';
    }
    std::string m_path;
    int m_fd = -1;
};

// The newer half of a file that has grown too large.
void Shorten(const std::string& path) {
    const qvf::Bytes all = qvf::ReadFile(path);
    const auto half = all.begin() + static_cast<std::ptrdiff_t>(all.size() / 2);
    const auto line = std::find(half, all.end(), uint8_t{'\n'});
    qvf::WriteFile(path, qvf::Bytes(line == all.end() ? line : line + 1, all.end()));
}

std::optional<HistoryEntry> ParseLine(std::string_view line) {
    if (line.size() > kMostOfLine) return std::nullopt;
    const Json json = Json::parse(line, nullptr, false);
    if (!json.is_object()) return std::nullopt;
    HistoryEntry entry;
    for (const TextField& field : kTexts) {
        const auto value = json.find(field.key);
        if (value == json.end()) continue;
        if (!value->is_string()) return std::nullopt;
        entry.*field.member = value->get<std::string>();
    }
    if (entry.time.empty() || entry.result.empty()) return std::nullopt;
    const auto attempts = json.find("attempts");
    if (attempts != json.end() && attempts->is_number_integer()) {
        const int64_t number = attempts->get<int64_t>();
        if (number >= 0 && number <= 1000) entry.attempts = static_cast<int>(number);
    }
    return entry;
}

}  // namespace

std::string TimeText(std::time_t time) {
    std::tm parts = {};
    std::array<char, 32> text = {};
    if (gmtime_r(&time, &parts) == nullptr) return "unknown";
    const size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
    return {text.data(), length};
}

std::string WhoRuns() {
    const passwd* user = getpwuid(geteuid());
    std::string name =
        user == nullptr ? "user " + std::to_string(geteuid()) : std::string(user->pw_name);
    const char* behind = std::getenv("SUDO_USER");
    if (behind == nullptr || name == behind) return name;
    return name + " (for " + std::string(behind).substr(0, 64) + ")";
}

Json HistoryJson(const HistoryEntry& entry) {
    Json json;
    json["version"] = 1;
    for (const TextField& field : kTexts)
        json[field.key] = (entry.*field.member).substr(0, kMostText);
    json["attempts"] = entry.attempts;
    return json;
}

std::string HistoryLine(const HistoryEntry& entry) {
    return HistoryJson(entry).dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

HistoryLog::HistoryLog(const std::string& folder) : m_folder(folder) {
    std::error_code error;
    fs::create_directories(folder, error);
    if (!fs::is_directory(folder)) Fail(folder, error ? error.value() : ENOTDIR);
    if (access(folder.c_str(), W_OK | X_OK) != 0) Fail(folder, errno);
}

void HistoryLog::Append(const HistoryEntry& entry) const {
    const std::string month = entry.time.substr(0, kMonthLength);
    const std::string path = m_folder + "/" + kHistoryPrefix + month + kSuffix;
    {
        const LockedFile file(path);
        file.Append(HistoryLine(entry));
        if (static_cast<uint64_t>(file.Length()) > kMostOfMonth) Shorten(path);
    }
    const std::vector<std::string> months = Months(m_folder);
    for (size_t i = 0; i + kMostMonths < months.size(); ++i) unlink(months[i].c_str());
}

History ParseHistory(std::string_view text) {
    History history;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end == text.npos ? text.size() : end + 1);
        if (line.empty()) continue;
        if (std::optional<HistoryEntry> entry = ParseLine(line))
            history.entries.push_back(std::move(*entry));
        else
            ++history.damaged;
    }
    return history;
}

History ReadHistory(const std::string& folder) {
    History all;
    for (const std::string& path : Months(folder)) {
        const qvf::Bytes bytes = qvf::ReadFile(path);
        History month = ParseHistory({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
        std::move(month.entries.begin(), month.entries.end(), std::back_inserter(all.entries));
        all.damaged += month.damaged;
    }
    return all;
}

std::string HistoryText(const History& history) {
    std::ostringstream text;
    for (const HistoryEntry& entry : history.entries) {
        const std::string& reason = entry.reason;
        text << qvf::Escaped(entry.time) << "  " << qvf::Escaped(entry.card) << "  "
             << qvf::Escaped(entry.product) << "  " << qvf::Escaped(entry.serial) << "  "
             << qvf::Escaped(entry.from) << " to " << qvf::Escaped(entry.to) << "  "
             << qvf::Escaped(entry.result) << (reason.empty() ? "" : ": ") << qvf::Escaped(reason)
             << "  by " << qvf::Escaped(entry.who) << "\n";
    }
    if (history.damaged > 0) text << history.damaged << " damaged lines were left out\n";
    return text.str();
}

}  // namespace qvo
