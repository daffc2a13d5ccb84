#include "Check.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <utility>

#include "Escape.h"
#include "Files.h"
#include "Signature.h"

namespace qvf {
namespace {

namespace fs = std::filesystem;

constexpr size_t kMaxPackages = 32;  // as many as qvcap-upgrade lists

// In the order of the directory, which is the order of qvcap-upgrade.
std::vector<std::string> PackageNames(const std::string& folder) {
    std::error_code error;
    std::vector<std::string> names;
    fs::directory_iterator entry(folder, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        std::error_code missing;  // a dangling link is no package
        const std::string name = entry->path().filename().string();
        if (name.find(".qvf") != name.npos && fs::is_regular_file(entry->path(), missing))
            names.push_back(name);
    }
    if (error) throw Mistake(folder + ": cannot be read: " + error.message());
    return names;
}

// One of the packages that are judged together.
struct Candidate {
    std::string name;  // in findings
    std::string path;
};

// Packages judged together.
class Group {
  public:
    Group(const CheckOptions& options, bool hasOrder, CheckReport& report)
        : m_options(options), m_hasOrder(hasOrder), m_report(report) {}

    void Judge(const std::vector<Candidate>& candidates) {
        for (const Candidate& candidate : candidates) JudgeOne(candidate);
        for (const auto& [cards, names] : m_fitting)
            if (names.size() > 1) AddSameCards(cards.first, cards.second, names);
        m_report.packages += candidates.size();
    }

  private:
    void Add(const std::string& name, Finding finding) {
        finding.file = name;
        m_report.findings.push_back(std::move(finding));
    }

    void JudgeOne(const Candidate& candidate) {
        try {
            const Package package = ReadPackage(candidate.path, Read::kHeader);
            for (Finding& finding : CheckPackage(package, m_options.flash))
                Add(candidate.name, std::move(finding));
            m_fitting[{package.productCode, package.hardwareVersion}].push_back(candidate.name);
        } catch (const Mistake& mistake) {
            // The message begins with "PATH: ".
            const std::string message = mistake.what();
            Add(candidate.name, {"", kUnreadable, message.substr(candidate.path.size() + 2)});
        }
        if (!m_options.keys.empty()) JudgeSignature(candidate);
    }

    void JudgeSignature(const Candidate& candidate) {
        const std::string place = SignaturePath(candidate.path);
        std::error_code missing;
        if (!fs::exists(place, missing))
            Add(candidate.name,
                {"", kUnsigned, "there is no signature " + fs::path(place).filename().string()});
        else if (!IsSignedBy(ReadFile(candidate.path), ReadFile(place), m_options.keys))
            Add(candidate.name,
                {"", kBadSignature,
                 fs::path(place).filename().string() +
                     " was not made over these bytes by a key of " + m_options.keys});
    }

    void AddSameCards(uint16_t product, uint8_t hardware, const std::vector<std::string>& names) {
        const std::string which =
            m_hasOrder ? "in today's order of the directory " + names[0] + " is taken"
                       : "the order of their directory decides which one is taken";
        for (size_t i = 1; i < names.size(); ++i)
            Add(names[i], {"", kSameCards,
                           "for product " + HexNumber(product, 4) + ", hardware " +
                               HardwareText(hardware) + " as " + names[0] + " is; " + which});
    }

    const CheckOptions& m_options;
    bool m_hasOrder;
    CheckReport& m_report;
    std::map<std::pair<uint16_t, uint8_t>, std::vector<std::string>> m_fitting;
};

void CheckFolder(const std::string& folder, const CheckOptions& options, CheckReport& report) {
    const std::vector<std::string> names = PackageNames(folder);
    std::vector<Candidate> candidates;
    candidates.reserve(names.size());
    for (const std::string& name : names)
        candidates.push_back({name, (fs::path(folder) / name).string()});
    const size_t before = report.findings.size();
    Group(options, true, report).Judge(candidates);
    // Judged in the directory's order, reported by name.
    std::stable_sort(report.findings.begin() + static_cast<ptrdiff_t>(before),
                     report.findings.end(),
                     [](const Finding& a, const Finding& b) { return a.file < b.file; });
    if (names.empty())
        report.findings.push_back({"", kNoPackages, folder + ": there is no package in it"});
    if (names.size() <= kMaxPackages) return;
    std::string left;
    for (size_t i = kMaxPackages; i < names.size(); ++i) left += " " + names[i];
    report.findings.push_back(
        {"", kTooManyPackages,
         std::to_string(names.size()) +
             " packages: only the first 32 in the directory's order are looked at, not" + left});
}

}  // namespace

CheckReport CheckPaths(const std::vector<std::string>& paths, const CheckOptions& options) {
    CheckReport report;
    std::vector<Candidate> files;
    for (const std::string& path : paths) {
        std::error_code error;
        const fs::file_status status = fs::status(path, error);
        if (fs::is_directory(status))
            CheckFolder(path, options, report);
        else if (fs::is_regular_file(status))
            files.push_back({path, path});
        else
            throw Mistake(path + ": cannot be read: " +
                          (error ? error.message() : "it is neither a file nor a folder"));
    }
    Group(options, false, report).Judge(files);
    return report;
}

std::string ReportText(const CheckReport& report) {
    std::string text;
    for (const Finding& finding : report.findings) {
        if (!finding.file.empty()) text += Escaped(finding.file) + ": ";
        text += LevelText(finding.rule.level) + std::string(": ") + Escaped(finding.message) +
                " [" + finding.rule.name + "]\n";
    }
    return text;
}

std::string ReportJson(const CheckReport& report) {
    nlohmann::ordered_json json;
    json["schema"] = "qvftool-check";
    json["version"] = 1;
    json["packages"] = report.packages;
    json["findings"] = nlohmann::ordered_json::array();
    for (const Finding& finding : report.findings) {
        nlohmann::ordered_json entry;
        entry["file"] = nullptr;
        if (!finding.file.empty()) entry["file"] = finding.file;
        entry["rule"] = finding.rule.name;
        entry["level"] = LevelText(finding.rule.level);
        entry["message"] = finding.message;
        json["findings"].push_back(entry);
    }
    // A file name need not be UTF-8.
    return json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace qvf
