// Creates cards, switches them off and on, and resets them.
#include "Commands.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <set>

#include "Folder.h"
#include "Journal.h"
#include "Model.h"
#include "Scenario.h"

namespace qvsim {
namespace {

namespace fs = std::filesystem;

// A copy of what `init` made, for `reset`.
fs::path Factory(const std::string& dir) { return fs::path(dir) / "factory"; }

bool IsFlash(const fs::path& file) { return file.filename().string().rfind("flash-", 0) == 0; }

// Each flash before its marks: a copy that ends early marks no byte that is missing.
std::string CopyFlash(const fs::path& from, const fs::path& to) {
    std::error_code error;
    std::set<fs::path> files;
    for (const auto& entry : fs::directory_iterator(from, error))
        if (IsFlash(entry.path())) files.insert(entry.path());
    for (const fs::path& file : files) {
        const fs::path place = to / file.filename();
        fs::copy_file(file, place, fs::copy_options::overwrite_existing, error);
        if (error) return place.string() + ": " + error.message();
    }
    return error ? from.string() + ": " + error.message() : std::string();
}

std::string KeepFactory(const std::string& dir) {
    const fs::path factory = Factory(dir);
    std::error_code error;
    fs::create_directory(factory, error);
    std::string wrong = error ? factory.string() + ": " + error.message() : CopyFlash(dir, factory);
    if (wrong.empty()) {
        fs::copy_file(StatePath(dir), StatePath(factory), error);
        if (!error) return {};
        wrong = StatePath(factory) + ": " + error.message();
    }
    // A failed `init` leaves no cards.
    fs::remove_all(factory, error);
    fs::remove(StatePath(dir), error);
    fs::remove(fs::path(dir) / "cards.live", error);
    fs::remove(JournalPath(dir), error);
    for (const auto& entry : fs::directory_iterator(dir, error))
        if (IsFlash(entry.path())) fs::remove(entry.path(), error);
    return wrong;
}

// The folder's lock is held.
std::string Reset(Folder& folder) {
    const std::string& dir = folder.Dir();
    CardsState state;
    if (std::string error = LoadState(Factory(dir), state); !error.empty()) return error;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(dir, error)) {
        const std::string name = entry.path().filename();
        if (name.rfind("flash-", 0) != 0 && name.rfind("settings-", 0) != 0) continue;
        // Programs have the flash open: it is emptied and filled again in the same file.
        if (name.rfind("flash-", 0) == 0)
            fs::resize_file(entry.path(), 0, error);
        else
            fs::remove(entry.path(), error);
    }
    if (error) return dir + ": " + error.message();
    if (std::string wrong = CopyFlash(Factory(dir), dir); !wrong.empty()) return wrong;
    LivePage& page = folder.Page();
    for (auto& board : page.settings)
        for (uint32_t& generation : board) CountShared<uint32_t>(generation);
    for (uint32_t& seen : page.faultSeen) StoreShared<uint32_t>(seen, 0);
    StoreShared<uint64_t>(page.boot, 0);
    unlink(MetFaultsPath(dir).c_str());
    if (std::string wrong = SaveState(folder, state); !wrong.empty()) return wrong;
    return ClearJournal(folder);
}

}  // namespace

int Fail(const std::string& error, int status) {
    std::fprintf(stderr, "qvcap-sim: %s\n", error.c_str());
    return status;
}

int SignalsThatEnd() {
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    sigprocmask(SIG_BLOCK, &ends, nullptr);
    return signalfd(-1, &ends, SFD_CLOEXEC | SFD_NONBLOCK);
}

int InitCommand(const std::string& dir, const std::string& scenario, bool packages) {
    CardsPlan plan;
    std::string error = scenario.empty()
                            ? ParseScenario(kDefaultScenario, "default-scenario.toml", plan)
                            : ReadScenario(scenario, plan);
    if (error.empty()) error = LayOut(plan, dir, packages);
    if (error.empty()) error = KeepFactory(dir);
    return error.empty() ? 0 : Fail(error);
}

int PowerCycleCommand(const std::string& dir) {
    std::shared_ptr<Model> model;
    if (std::string error = Model::Load(dir, model); !error.empty()) return Fail(error);
    return model->PowerCycle() ? 0 : kBadInput;
}

int ResetCommand(const std::string& dir) {
    std::unique_ptr<Folder> folder;
    if (std::string error = Folder::Open(dir, folder); !error.empty()) return Fail(error);
    const Folder::Lock lock(folder.get());
    const std::string error = Reset(*folder);
    return error.empty() ? 0 : Fail("reset: " + error);
}

}  // namespace qvsim
