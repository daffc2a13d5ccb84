// `qvcap-sim journal`: prints the lines unchanged, or as one JSON object each.
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "Commands.h"
#include "Folder.h"
#include "Journal.h"
#include "Json.h"
#include "Model.h"
#include "OpenRecord.h"

namespace qvsim {
namespace {

// "offset=0x10 size=5" as members of an object.
std::string Members(const std::string& arguments) {
    std::string out;
    for (size_t at = 0; at < arguments.size();) {
        const size_t end = std::min(arguments.find(' ', at), arguments.size());
        const std::string word = arguments.substr(at, end - at);
        const size_t equals = std::min(word.find('='), word.size());
        out += (out.empty() ? "" : ",") + JsonText(word.substr(0, equals)) + ":" +
               JsonText(equals < word.size() ? word.substr(equals + 1) : "");
        at = end + 1;
    }
    return out;
}

std::string Json(const JournalLine& line) {
    const size_t space = line.result.find(' ');
    std::string out = "{\"sequence\":" + std::to_string(line.sequence) +
                      ",\"pid\":" + std::to_string(line.pid) +
                      ",\"action\":" + JsonText(line.action) + ",\"node\":" + JsonText(line.node);
    if (line.action == "ioctl") out += ",\"request\":" + JsonText(line.request);
    out += ",\"arguments\":{" + Members(line.arguments) +
           "},\"result\":" + std::to_string(std::atoi(line.result.substr(0, space).c_str()));
    if (space != std::string::npos) out += ",\"error\":" + JsonText(line.result.substr(space + 1));
    return out + "}";
}

std::string Text(const JournalLine& line) {
    std::string out = std::to_string(line.sequence) + " " + std::to_string(line.pid) + " " +
                      line.action + " " + line.node;
    if (!line.request.empty()) out += " " + line.request;
    if (!line.arguments.empty()) out += " " + line.arguments;
    return out + " = " + line.result;
}

// Prints the lines after `last`, and updates it. Returns an error message, empty on success.
std::string PrintNews(const std::string& dir, bool json, uint64_t& last) {
    std::vector<JournalLine> lines;
    std::string error = ReadJournal(dir, lines);
    uint64_t newest = last;
    for (const JournalLine& line : lines) {
        if (line.sequence <= last) continue;
        newest = std::max(newest, line.sequence);
        std::printf("%s\n", (json ? Json(line) : Text(line)).c_str());
    }
    last = newest;
    std::fflush(stdout);
    return error;
}

}  // namespace

int JournalCommand(const std::string& dir, bool json, bool follow, bool clear) {
    CardsState state;
    std::string error = LoadState(dir, state);
    if (!error.empty()) return Fail(error);
    std::unique_ptr<Folder> folder;
    if (error = Folder::Open(dir, folder); !error.empty()) return Fail(error);
    if (clear) {
        error = ClearJournal(*folder);
        return error.empty() ? 0 : Fail(error);
    }
    uint64_t last = 0;
    uint64_t printed = 0;
    do {
        CloseForTheDead(dir);
        const uint64_t seen = LoadShared(folder->Page().journalBytes);
        if (seen != printed || !follow) error = PrintNews(dir, json, last);
        printed = seen;
        if (follow) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    } while (follow && error.empty() && std::ferror(stdout) == 0);
    return error.empty() ? 0 : Fail(error);
}

}  // namespace qvsim
