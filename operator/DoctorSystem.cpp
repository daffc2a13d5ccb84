// The computer around the cards, for Doctor.h: kernel, udev rules, sound cards, versions, packages.
#include <sys/utsname.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <sstream>

#include "Check.h"
#include "Child.h"
#include "Doctor.h"
#include "Packages.h"
#include "Program.h"
#include "QVCapture.h"

namespace qvo {
namespace {

constexpr char kRules[] = "70-qvcapture.rules";
constexpr char kToolPackage[] = "qvcap-upgrade";
constexpr char kLibraryPackage[] = "libqvcapture3";
constexpr int kLongestList = 256;  // most lines of a list of sound cards

Observation Kernel() {
    utsname about = {};
    uname(&about);
    const std::string bits = std::to_string(sizeof(void*) * 8);
    return {Severity::kNote, "kernel", "",
            std::string(about.sysname) + " " + about.release + " on " + about.machine +
                ", programs of " + bits + " bits",
            ""};
}

Observation User() {
    if (geteuid() == 0) return {Severity::kOk, "user", "", "root", ""};
    return {Severity::kNote, "user", "", "user number " + std::to_string(geteuid()),
            "run upgrades as root"};
}

Observation UdevRules(const std::vector<std::string>& folders) {
    for (const std::string& folder : folders)
        if (access((folder + "/" + kRules).c_str(), R_OK) == 0)
            return {Severity::kOk, "udev", folder + "/" + kRules, "is installed", ""};
    return {Severity::kWarning, "udev", kRules, "is not installed",
            "install the package libqvcapture3, or copy the file to /etc/udev/rules.d: without it "
            "the nodes "
            "may be root's alone"};
}

bool IsOurs(const std::string& name) {
    for (const char* family : {"Pelix Capture", "Lumo Capture", "Tavo Capture"})
        if (name.find(family) != name.npos) return true;
    return false;
}

// " 1 [Capture        ]: USB-Audio - Tavo Capture HDMI"
std::vector<Observation> SoundCards(const std::string& proc) {
    std::vector<Observation> seen;
    std::ifstream list(proc + "/asound/cards");
    std::string line;
    for (int i = 0; i < kLongestList && std::getline(list, line); ++i) {
        const size_t bracket = line.find('[');
        const size_t name = line.find("]: ");
        if (bracket == line.npos || name == line.npos || !IsOurs(line.substr(name))) continue;
        std::string number = line.substr(0, bracket);
        std::erase(number, ' ');
        seen.push_back({Severity::kOk, "sound", "hw:" + number, line.substr(name + 3), ""});
    }
    if (seen.empty())
        seen.push_back({Severity::kNote, "sound", "",
                        "no sound card has the name of a capture family; volumes cannot be set",
                        ""});
    return seen;
}

// The versions of the installed Debian packages. Empty without dpkg.
std::map<std::string, std::string> InstalledVersions() {
    std::map<std::string, std::string> versions;
    try {
        const qvf::ProgramRun run = qvf::RunProgram(
            {"dpkg-query", "-W", "-f", "${Package} ${db:Status-Status} ${Version}\\n", kToolPackage,
             kLibraryPackage},
            qvf::MemoryFile(), "dpkg");
        std::istringstream lines(std::string(run.output.begin(), run.output.end()));
        std::string package;
        std::string status;
        std::string version;
        while (lines >> package >> status && std::getline(lines >> std::ws, version))
            if (status == "installed") versions[package] = version;
    } catch (const qvf::Mistake&) {
        return {};  // another system
    }
    return versions;
}

Observation LibraryVersion() {
    unsigned char major = 0;
    unsigned char minor = 0;
    unsigned short build = 0;
    QVGetVersion(&major, &minor, &build);
    const std::string version =
        std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(build);
    const std::string message = "libqvcapture " + version + ", qvcap " QV_VERSION;
    if (major == QV_VERSION_MAJOR && minor >= QV_VERSION_MINOR)
        return {Severity::kOk, "versions", "", message, ""};
    return {Severity::kError, "versions", "", message,
            "install qvcap and libqvcapture3 of one version"};
}

Observation ToolPackageVersion() {
    const std::map<std::string, std::string> versions = InstalledVersions();
    const auto tool = versions.find(kToolPackage);
    const auto library = versions.find(kLibraryPackage);
    if (tool == versions.end() || library == versions.end())
        return {Severity::kNote, "versions", kToolPackage,
                "is not installed as a package: its version cannot be told", ""};
    const std::string message = "package " + tool->second + ", library " + library->second;
    if (tool->second == library->second)
        return {Severity::kOk, "versions", kToolPackage, message, ""};
    return {Severity::kError, "versions", kToolPackage, message,
            "install qvcap-upgrade and libqvcapture3 of one version"};
}

Observation ToolPlace() {
    try {
        return {Severity::kOk, "tool", FindTool(), "is what qvcap upgrade starts", ""};
    } catch (const qvf::Mistake& mistake) {
        return {Severity::kError, "tool", kToolPackage, mistake.what(),
                "install the package qvcap-upgrade"};
    }
}

std::string Counted(size_t count, const char* one, const char* many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

}  // namespace

std::vector<Observation> ExamineSystem(const Surroundings& surroundings) {
    std::vector<Observation> seen = SoundCards(surroundings.proc);
    seen.insert(seen.begin(), {Kernel(), User(), UdevRules(surroundings.ruleFolders)});
    return seen;
}

std::vector<Observation> ExamineVersions() {
    return {LibraryVersion(), ToolPackageVersion(), ToolPlace()};
}

std::vector<Observation> ExaminePackages(const std::string& folder) {
    constexpr char kCheck[] = "packages";
    std::vector<Observation> seen;
    try {
        const PackageSet set(folder);
        if (set.IsEmpty()) return {{Severity::kNote, kCheck, folder, "holds no package", ""}};
        const qvf::CheckReport report = qvf::CheckPaths({folder}, {});
        for (const qvf::Finding& finding : report.findings) {
            const bool error = finding.rule.level == qvf::Level::kError;
            seen.push_back({error ? Severity::kError : Severity::kWarning, kCheck,
                            finding.file.empty() ? folder : finding.file,
                            finding.message + " [" + finding.rule.name + "]",
                            "get the package again, or ask its maker; qvftool check says more"});
        }
        if (seen.empty())
            seen.push_back({Severity::kOk, kCheck, folder,
                            "holds " + Counted(set.Packages().size(), "package", "packages"), ""});
    } catch (const qvf::Mistake& mistake) {
        seen.push_back(
            {Severity::kError, kCheck, folder, mistake.what(), "name a folder with packages"});
    }
    return seen;
}

}  // namespace qvo
