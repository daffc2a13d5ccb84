// qvcap-sim: creates simulated cards, shows them, and runs programs with them in /dev.
//
// Only the command line; Commands.h does the work. Exit status 2: wrong arguments or an unusable
// file, nothing was written.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <string_view>

#include "Commands.h"

// The table of commands below is the same in every run: a mistake in it throws in every test.
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

    // Everything after `--` belongs to the command, options included.
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
    std::string usbState;
    usb->add_option("--state", usbState, "folder for the flash of devices that are controlled");
    usb->callback([&] { status = qvsim::UsbCommand(scenario, dir, usbState); });
    bool json = false;
    auto* show = app.add_subcommand("status", "show boards, channels, versions and power");
    show->add_option("DIR", dir, "folder with the cards")->required();
    show->add_flag("--json", json, "as one JSON object");
    show->callback([&] { status = qvsim::StatusCommand(dir, json); });
    onFolder("power-cycle", "switch the cards off and on: firmware is loaded from flash",
             qvsim::PowerCycleCommand);
    onFolder("reset", "make the cards again what `init` made them", qvsim::ResetCommand);

    bool follow = false;
    bool clear = false;
    auto* journal =
        app.add_subcommand("journal", "print the journal of opens, closes and requests");
    journal->add_option("DIR", dir, "folder with the cards")->required();
    journal->add_flag("--json", json, "one JSON object for each line");
    auto* following = journal->add_flag("--follow", follow, "go on with what comes");
    journal->add_flag("--clear", clear, "forget all lines instead")->excludes(following);
    journal->callback([&] { status = qvsim::JournalCommand(dir, json, follow, clear); });

    std::vector<std::string> pairs;
    std::vector<int> numbers;
    auto* fault = app.add_subcommand("fault", "what goes wrong with the cards, also while in use");
    fault->require_subcommand(1);
    auto* add = fault->add_subcommand(
        "add",
        "add a fault in the words of a scenario and print its number:\n"
        "  qvcap-sim fault add DIR request=EraseFirmwareData nth=3 kind=power_loss");
    add->add_option("DIR", dir, "folder with the cards")->required();
    add->add_option("SETTING", pairs, "KEY=VALUE: request=, kind=, nth= and so on")->required();
    add->callback([&] { status = qvsim::FaultAddCommand(dir, pairs); });
    auto* clearing = fault->add_subcommand("clear", "take faults back: those named, or all");
    clearing->add_option("DIR", dir, "folder with the cards")->required();
    clearing->add_option("NUMBER", numbers, "as `fault list` shows them");
    clearing->callback([&] { status = qvsim::FaultClearCommand(dir, numbers); });
    auto* list = fault->add_subcommand("list", "show the faults, and how often each was looked at");
    list->add_option("DIR", dir, "folder with the cards")->required();
    list->add_flag("--json", json, "as one JSON list");
    list->callback([&] { status = qvsim::FaultListCommand(dir, json); });

    std::string place;
    std::string file;
    auto* flash = app.add_subcommand("flash", "the bytes of a card's flash, out of it and into it");
    flash->require_subcommand(1);
    const auto onFlash = [&](const char* name, const char* help, auto work) {
        auto* sub = flash->add_subcommand(name, help);
        sub->add_option("DIR", dir, "folder with the cards")->required();
        sub->add_option("PLACE", place, "BOARD or BOARD:CHANNEL, as `status` shows them")
            ->required();
        sub->add_option("FILE", file, "the chip's bytes")->required();
        sub->callback([&, work] { status = work(dir, place, file); });
    };
    onFlash("read", "write the chip's bytes to a file", qvsim::FlashReadCommand);
    onFlash("write", "fill the chip from a file, such as a real card's dump",
            qvsim::FlashWriteCommand);

    try {
        app.parse(static_cast<int>(dashes - argv), argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : qvsim::kBadInput;
    }
    return status;
}
