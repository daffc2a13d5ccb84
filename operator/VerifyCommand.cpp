// qvcap verify: every section of the cards' flash against the packages, and every difference.
#include <iostream>
#include <memory>

#include "Commands.h"
#include "Escape.h"
#include "Library.h"
#include "Look.h"
#include "Selection.h"
#include "VerifyReport.h"

namespace qvo {
namespace {

struct VerifyArguments {
    std::string packages = ".";
    Selection selection;
    bool json = false;
};

// The digests of the packages that were compared. A package that is gone since has none.
Digests DigestsOf(const std::vector<StatusRow>& rows, const PackageSet& packages) {
    Digests digests;
    for (const StatusRow& row : rows) {
        const FirmwarePackage* package = row.verdict.package;
        if (package == nullptr || digests.contains(package->name)) continue;
        try {
            digests[package->name] = packages.Contents(*package)->Sha256();
        } catch (const qvf::Mistake&) {
            continue;  // the verdict says so
        }
    }
    return digests;
}

ExitStatus Verify(const VerifyArguments& arguments) {
    const PackageSet packages(arguments.packages);
    const Library library;
    const std::vector<StatusRow> rows =
        LookAt(Selected(FindCards(), arguments.selection), packages, Depth::kCount);
    const Digests digests = DigestsOf(rows, packages);
    std::cout << (arguments.json ? VerifyJson : VerifyText)(rows, packages, digests);
    if (rows.empty())
        std::cerr << "qvcap: there is no card" << qvf::Escaped(arguments.selection.Text()) << "\n";
    return VerifyStatus(rows);
}

}  // namespace

void AddVerify(CLI::App& app, int& status) {
    const auto arguments = std::make_shared<VerifyArguments>();
    CLI::App* command =
        app.add_subcommand("verify", "compare the cards' flash with the packages; reads only");
    command->add_option("--packages", arguments->packages, "folder of the packages")
        ->check(NotEmpty());
    AddSelection(*command, arguments->selection);
    command->add_flag("--json", arguments->json, "as JSON");
    command->callback([arguments, &status] { status = Number(Verify(*arguments)); });
}

}  // namespace qvo
