#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <new>

#include "Check.h"
#include "Description.h"
#include "Files.h"
#include "Info.h"
#include "Package.h"

namespace qvf {
namespace {

constexpr int kDone = 0;
constexpr int kFindings = 1;
constexpr int kUnusable = 2;

struct Arguments {
    std::string input;
    std::string output;
    bool json = false;
};

int Create(const Arguments& arguments) {
    WriteFile(arguments.output, Serialize(ReadDescription(arguments.input)));
    return kDone;
}

int Extract(const Arguments& arguments) {
    const Package package = ReadPackage(arguments.input, Read::kEverything);
    NewFolder folder(arguments.output);
    WriteDescription(package, folder);
    folder.Commit();
    return kDone;
}

int Info(const Arguments& arguments, std::ostream& out) {
    const Package package = ReadPackage(arguments.input, Read::kHeader);
    out << (arguments.json ? InfoJson : InfoText)(arguments.input, package);
    return kDone;
}

int CheckAll(const Arguments& arguments, std::ostream& out) {
    const std::vector<std::string> findings = CheckFolder(arguments.input);
    for (const std::string& finding : findings) out << finding << "\n";
    return findings.empty() ? kDone : kFindings;
}

}  // namespace

int RunQvftool(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& errors) {
    CLI::App app{"Makes, shows, checks and takes apart firmware packages (.qvf)", "qvftool"};
    app.require_subcommand(1);
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("qvftool: ") + error.what() +
               "\nqvftool: run it with --help for more information\n";
    });
    Arguments given;
    int status = kDone;

    CLI::App* create = app.add_subcommand("create", "make a package from a description");
    create->add_option("DESCRIPTION", given.input, "TOML file")->required();
    create->add_option("-o,--output", given.output, "package to write")->required();
    create->callback([&] { status = Create(given); });

    CLI::App* info = app.add_subcommand("info", "show header and section table");
    info->add_option("FILE", given.input, "package")->required();
    info->add_flag("--json", given.json, "as JSON");
    info->callback([&] { status = Info(given, out); });

    CLI::App* check = app.add_subcommand("check", "look for trouble among a folder's packages");
    check->add_option("DIR", given.input, "folder")->required();
    check->callback([&] { status = CheckAll(given, out); });

    CLI::App* extract = app.add_subcommand("extract", "take a package apart");
    extract->add_option("FILE", given.input, "package")->required();
    extract->add_option("-d,--directory", given.output, "folder to make")->required();
    extract->callback([&] { status = Extract(given); });

    std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
    try {
        app.parse(reversed);
    } catch (const CLI::ParseError& error) {
        return app.exit(error, out, errors) == 0 ? kDone : kUnusable;
    } catch (const Mistake& mistake) {
        errors << "qvftool: " << mistake.what() << "\n";
        return kUnusable;
    } catch (const std::bad_alloc&) {
        errors << "qvftool: " << given.input << ": there is not enough memory for it\n";
        return kUnusable;
    }
    return status;
}

}  // namespace qvf
