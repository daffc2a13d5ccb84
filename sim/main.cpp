// qvcap-sim: creates simulated cards, shows them, and runs programs with them in /dev.
//
// Only the command line; Commands.h does the work. Exit status 2: wrong arguments or an unusable
// file, nothing was written.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "Commands.h"

namespace {

// What the command line says, for the command that it names.
struct Words {
    std::string dir, scenario, state, place, file;
    std::vector<std::string> command;  // everything after `--`, options included
    std::vector<std::string> pairs;
    std::vector<int> numbers;
    bool packages = false, json = false, follow = false, clear = false;
    int status = 0;
};

CLI::App* AddOnFolder(CLI::App& app, Words& words, const char* name, const char* help) {
    auto* sub = app.add_subcommand(name, help);
    sub->add_option("DIR", words.dir, "folder with the cards")->required();
    return sub;
}

void AddInitAndRun(CLI::App& app, Words& words) {
    auto* init = app.add_subcommand("init", "lay out the cards of a scenario in a new folder");
    init->add_option("DIR", words.dir, "folder to make")->required();
    init->add_option("--scenario", words.scenario,
                     "TOML file; without it three cards of every sort");
    init->add_flag("--packages", words.packages,
                   "firmware packages for the cards, in DIR/packages");
    init->callback(
        [&] { words.status = qvsim::InitCommand(words.dir, words.scenario, words.packages); });

    auto* run = app.add_subcommand("run",
                                   "run a program with the cards in its /dev:\n"
                                   "  qvcap-sim run DIR -- COMMAND [ARGUMENT...]");
    run->add_option("DIR,--state", words.dir, "folder with the cards")->required();
    run->callback([&] { words.status = qvsim::RunCommand(words.dir, words.command); });
}

void AddServeAndUsb(CLI::App& app, Words& words) {
    AddOnFolder(app, words, "serve",
                "make the cards' nodes in /dev and serve them until SIGTERM or SIGINT;\n"
                "prints `ready` when they stand. Needs root and /dev/cuse")
        ->callback([&] { words.status = qvsim::ServeCommand(words.dir); });
    auto* usb = app.add_subcommand(
        "usb",
        "plug the scenario's USB devices into this kernel and serve them until SIGTERM or SIGINT;\n"
        "prints `ready` when all are known, and takes lines `unplug SERIAL` and `plug SERIAL`.\n"
        "Needs root and the modules vhci-hcd, snd-usb-audio, uvcvideo");
    usb->add_option("--scenario", words.scenario, "TOML file; without it one device");
    usb->add_option("--played", words.dir, "folder for what is played to the devices");
    usb->add_option("--state", words.state, "folder for the flash of devices that are controlled");
    usb->callback(
        [&] { words.status = qvsim::UsbCommand(words.scenario, words.dir, words.state); });
}

void AddStatusAndPower(CLI::App& app, Words& words) {
    auto* show = AddOnFolder(app, words, "status", "show boards, channels, versions and power");
    show->add_flag("--json", words.json, "as one JSON object");
    show->callback([&] { words.status = qvsim::StatusCommand(words.dir, words.json); });
    AddOnFolder(app, words, "power-cycle",
                "switch the cards off and on: firmware is loaded from flash")
        ->callback([&] { words.status = qvsim::PowerCycleCommand(words.dir); });
    AddOnFolder(app, words, "reset", "make the cards again what `init` made them")->callback([&] {
        words.status = qvsim::ResetCommand(words.dir);
    });
}

void AddJournal(CLI::App& app, Words& words) {
    auto* journal =
        AddOnFolder(app, words, "journal", "print the journal of opens, closes and requests");
    journal->add_flag("--json", words.json, "one JSON object for each line");
    auto* following = journal->add_flag("--follow", words.follow, "go on with what comes");
    journal->add_flag("--clear", words.clear, "forget all lines instead")->excludes(following);
    journal->callback([&] {
        words.status = qvsim::JournalCommand(words.dir, words.json, words.follow, words.clear);
    });
}

void AddFault(CLI::App& app, Words& words) {
    auto* fault = app.add_subcommand("fault", "what goes wrong with the cards, also while in use");
    fault->require_subcommand(1);
    auto* add =
        AddOnFolder(*fault, words, "add",
                    "add a fault in the words of a scenario and print its number:\n"
                    "  qvcap-sim fault add DIR request=EraseFirmwareData nth=3 kind=power_loss");
    add->add_option("SETTING", words.pairs, "KEY=VALUE: request=, kind=, nth= and so on")
        ->required();
    add->callback([&] { words.status = qvsim::FaultAddCommand(words.dir, words.pairs); });
    auto* clear = AddOnFolder(*fault, words, "clear", "take faults back: those named, or all");
    clear->add_option("NUMBER", words.numbers, "as `fault list` shows them");
    clear->callback([&] { words.status = qvsim::FaultClearCommand(words.dir, words.numbers); });
    auto* list =
        AddOnFolder(*fault, words, "list", "show the faults, and how often each was looked at");
    list->add_flag("--json", words.json, "as one JSON list");
    list->callback([&] { words.status = qvsim::FaultListCommand(words.dir, words.json); });
}

void AddFlash(CLI::App& app, Words& words) {
    auto* flash = app.add_subcommand("flash", "the bytes of a card's flash, out of it and into it");
    flash->require_subcommand(1);
    const auto onFlash = [&](const char* name, const char* help, auto work) {
        auto* sub = AddOnFolder(*flash, words, name, help);
        sub->add_option("PLACE", words.place, "BOARD or BOARD:CHANNEL, as `status` shows them")
            ->required();
        sub->add_option("FILE", words.file, "the chip's bytes")->required();
        sub->callback([&words, work] { words.status = work(words.dir, words.place, words.file); });
    };
    onFlash("read", "write the chip's bytes to a file", qvsim::FlashReadCommand);
    onFlash("write", "fill the chip from a file, such as a real card's dump",
            qvsim::FlashWriteCommand);
}

}  // namespace

// The table of commands is the same in every run: a mistake in it throws in every test.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv) {
    CLI::App app{"Simulated capture cards"};
    app.require_subcommand(1);
    app.set_version_flag("--version", "qvcap-sim " QV_VERSION, "print the version");
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("qvcap-sim: ") + error.what() +
               "\nqvcap-sim: run it with --help for more information\n";
    });
    char** const end = argv + argc;
    char** const dashes = std::find(argv, end, std::string_view("--"));
    Words words;
    words.command.assign(dashes == end ? end : dashes + 1, end);

    for (const auto add :
         {AddInitAndRun, AddServeAndUsb, AddStatusAndPower, AddJournal, AddFault, AddFlash})
        add(app, words);
    try {
        app.parse(static_cast<int>(dashes - argv), argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : qvsim::kBadInput;
    }
    return words.status;
}
