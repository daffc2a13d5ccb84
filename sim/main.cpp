// qvcap-sim: lays out simulated cards, shows them, and runs programs with them in /dev.
//
// The command line only; Commands.h does the work. Exit status 2: wrong arguments or an unusable
// file, nothing was written.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <string_view>

#include "Commands.h"

// The table of commands below is the same in every run: what is wrong in it throws in every test.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv) {
    CLI::App app{"Simulated capture cards"};
    app.require_subcommand(1);
    app.set_version_flag("--version", "qvcap-sim " QV_VERSION, "print the version");
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("qvcap-sim: ") + error.what() +
               "\nqvcap-sim: run it with --help for more information\n";
    });
    std::string dir;
    std::string scenario;
    int status = 0;

    // What stands behind `--` is the command's own, options included.
    char** const end = argv + argc;
    char** const dashes = std::find(argv, end, std::string_view("--"));
    const std::vector<std::string> command(dashes == end ? end : dashes + 1, end);

    auto* init = app.add_subcommand("init", "lay out the cards of a scenario in a new folder");
    init->add_option("DIR", dir, "folder to make")->required();
    init->add_option("--scenario", scenario, "TOML file; without it three cards of every sort");
    bool packages = false;
    init->add_flag("--packages", packages, "firmware packages for the cards, in DIR/packages");
    init->callback([&] { status = qvsim::InitCommand(dir, scenario, packages); });

    auto* run = app.add_subcommand("run",
                                   "run a program with the cards in its /dev:\n"
                                   "  qvcap-sim run DIR -- COMMAND [ARGUMENT...]");
    run->add_option("DIR,--state", dir, "folder with the cards")->required();
    run->callback([&] { status = qvsim::RunCommand(dir, command); });

    const auto onFolder = [&](const char* name, const char* help, int (*work)(const std::string&)) {
        auto* sub = app.add_subcommand(name, help);
        sub->add_option("DIR", dir, "folder with the cards")->required();
        sub->callback([&dir, &status, work] { status = work(dir); });
    };
    onFolder("serve",
             "make the cards' nodes in /dev and serve them until SIGTERM or SIGINT;\n"
             "prints `ready` when they stand. Needs root and /dev/cuse",
             qvsim::ServeCommand);
    auto* usb = app.add_subcommand(
        "usb",
        "plug the scenario's USB devices into this kernel and serve them until SIGTERM or SIGINT;\n"
        "prints `ready` when all are known, and takes lines `unplug SERIAL` and `plug SERIAL`.\n"
        "Needs root and the modules vhci-hcd, snd-usb-audio, uvcvideo");
    usb->add_option("--scenario", scenario, "TOML file; without it one device");
    usb->add_option("--played", dir, "folder for what is played to the devices");
    usb->callback([&] { status = qvsim::UsbCommand(scenario, dir); });
    onFolder("status", "show boards, channels, versions and power", qvsim::StatusCommand);
    onFolder("power-cycle", "switch the cards off and on: firmware is loaded from flash",
             qvsim::PowerCycleCommand);
    onFolder("journal", "print the journal of opens, closes and requests", qvsim::JournalCommand);

    try {
        app.parse(static_cast<int>(dashes - argv), argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : qvsim::kBadInput;
    }
    return status;
}
