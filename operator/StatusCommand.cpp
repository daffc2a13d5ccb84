// qvcap status: what each card runs, holds and needs.
#include <iostream>

#include "Cards.h"
#include "Commands.h"
#include "Escape.h"
#include "ExitStatus.h"
#include "Judge.h"
#include "Library.h"

namespace qvo {
namespace {

struct Arguments {
    std::string packages = ".";
    bool quick = false;
};

int Status(const Arguments& arguments) {
    const PackageSet packages(arguments.packages);
    const Library library;
    for (const Card& card : FindCards()) {
        const Verdict verdict =
            JudgeCard(card, packages, arguments.quick ? Depth::kHeaders : Depth::kSections);
        std::cout << card.Name() << "  " << qvf::Escaped(card.product) << "  "
                  << StateText(verdict.state) << "  " << qvf::Escaped(verdict.reason) << "\n";
    }
    return Number(ExitStatus::kDone);
}

}  // namespace

void AddStatus(CLI::App& app, int& status) {
    const auto arguments = std::make_shared<Arguments>();
    CLI::App* command = app.add_subcommand("status", "show what each card runs, holds and needs");
    command->add_option("--packages", arguments->packages, "folder of the packages");
    command->add_flag("--quick", arguments->quick, "read headers only");
    command->callback([arguments, &status] { status = Status(*arguments); });
}

}  // namespace qvo
