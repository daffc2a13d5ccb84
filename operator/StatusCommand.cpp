// qvcap status: what each card runs, holds and needs.
#include <iostream>

#include "Commands.h"
#include "ExitStatus.h"
#include "Library.h"
#include "Look.h"
#include "Selection.h"

namespace qvo {
namespace {

struct StatusArguments {
    std::string packages = ".";
    bool quick = false;
    bool json = false;
    bool exitCode = false;
};

ExitStatus Status(const StatusArguments& arguments) {
    const PackageSet packages(arguments.packages);
    const Library library;
    const Depth depth = arguments.quick ? Depth::kHeaders : Depth::kSections;
    const std::vector<StatusRow> rows = LookAt(FindCards(), packages, depth);
    std::cout << (arguments.json ? StatusJson : StatusText)(rows, packages, arguments.quick);
    return arguments.exitCode ? StatusForScripts(rows) : StatusForPeople(rows);
}

}  // namespace

void AddStatus(CLI::App& app, int& status) {
    const auto arguments = std::make_shared<StatusArguments>();
    CLI::App* command = app.add_subcommand("status", "show what each card runs, holds and needs");
    command->add_option("--packages", arguments->packages, "folder of the packages")
        ->check(NotEmpty());
    command->add_flag("--quick", arguments->quick, "read headers only");
    command->add_flag("--json", arguments->json, "as JSON");
    command->add_flag("--exit-code", arguments->exitCode,
                      "say in the exit status what has to be done");
    command->callback([arguments, &status] { status = Number(Status(*arguments)); });
}

}  // namespace qvo
