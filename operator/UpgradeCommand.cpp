// qvcap upgrade: its options.
#include <unistd.h>

#include <iostream>
#include <memory>

#include "Commands.h"
#include "Upgrade.h"

namespace qvo {
namespace {

constexpr int kMostJobs = 64;
constexpr int kMostRetries = 20;
constexpr int kMostSeconds = 86400;

struct UpgradeArguments {
    UpgradeOptions options;
    bool json = false;
};

void AddWays(CLI::App& command, UpgradeOptions& options) {
    command.add_flag("--force", options.force,
                     "write cards that are current, newer or staged, too");
    command.add_flag("--force-busy", options.forceBusy, "also cards that a process has open");
    command.add_flag("--dry-run", options.dryRun, "show the plan and write nothing");
    command.add_flag("--wait", options.wait, "wait for whoever is at work");
    command.add_flag("--stop-on-failure", options.stopOnFailure,
                     "begin no further card after a failed one");
    command.add_flag("--power-off", options.powerOff, "turn the computer off after full success");
    command.add_option("--jobs", options.jobs, "so many boards at once")
        ->check(CLI::Range(1, kMostJobs));
    command.add_option("--retries", options.retries, "further attempts for a card that failed")
        ->check(CLI::Range(0, kMostRetries));
    command
        .add_option("--stalled-after", options.stalledAfter, "seconds without progress to tell of")
        ->check(CLI::Range(1, kMostSeconds));
}

}  // namespace

void AddUpgrade(CLI::App& app, int& status) {
    const auto given = std::make_shared<UpgradeArguments>();
    UpgradeOptions& options = given->options;
    CLI::App* command =
        app.add_subcommand("upgrade", "write new firmware to the cards that need it, unattended");
    command->add_option("--packages", options.packages, "folder of the packages")
        ->check(NotEmpty());
    AddSelection(*command, options.selection);
    AddWays(*command, options);
    command->add_option("--backup", options.backup, "folder to save each card's images in before")
        ->check(NotEmpty());
    command
        ->add_option("--earlier", options.earlier, "folder of packages that the cards had before")
        ->check(NotEmpty());
    command->add_option("--log", options.log, "folder of the history and the tool's output")
        ->check(NotEmpty());
    command->add_option("--lock", options.lock, "lock file of this machine")->check(NotEmpty());
    command->add_flag("--json", given->json, "an object for each event");
    command->callback([given, &status] {
        UpgradeOptions& chosen = given->options;
        if (given->json)
            chosen.look = Look::kJson;
        else
            chosen.look = isatty(STDOUT_FILENO) == 1 ? Look::kTerminal : Look::kPlain;
        status = Number(RunUpgrade(chosen, std::cout));
    });
}

}  // namespace qvo
