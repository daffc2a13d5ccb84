// qvcap: the operator's companion of qvcap-upgrade. Other files implement the commands; this one
// reports what they throw.
#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <new>

#include "Commands.h"
#include "Escape.h"
#include "ExitStatus.h"
#include "Library.h"
#include "Package.h"

namespace {

int Run(CLI::App& app, int argc, char** argv) {
    int status = Number(qvo::ExitStatus::kDone);
    qvo::AddStatus(app, status);
    qvo::AddVerify(app, status);
    qvo::AddBackup(app, status);
    qvo::AddDoctor(app, status);
    qvo::AddUpgrade(app, status);
    qvo::AddHistory(app, status);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int code = app.exit(error, std::cout, std::cerr);
        return code == 0 ? status : Number(qvo::ExitStatus::kUsage);
    } catch (const qvf::Mistake& mistake) {
        std::cerr << "qvcap: " << qvf::Escaped(mistake.what()) << "\n";
        return Number(qvo::ExitStatus::kFailed);
    } catch (const std::bad_alloc&) {
        std::cerr << "qvcap: there is not enough memory\n";
        return Number(qvo::ExitStatus::kFailed);
    }
    // Output that cannot be written is a failure.
    if (std::cout.flush().good()) return status;
    std::cerr << "qvcap: the output cannot be written\n";
    return Number(qvo::ExitStatus::kFailed);
}

int RunQvcap(int argc, char** argv) {
    CLI::App app{"Says what firmware the capture cards have, and upgrades them unattended",
                 "qvcap"};
    app.set_version_flag("--version", "qvcap " QV_VERSION);
    app.require_subcommand(1);
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("qvcap: ") + error.what() +
               "\nqvcap: run it with --help for more information\n";
    });
    return Run(app, argc, argv);
}

}  // namespace

int main(int argc, char** argv) {
    qvo::OccupyStandardStreams();
    // Whoever starts this may ignore it, and then nobody would learn how a child has ended.
    std::signal(SIGCHLD, SIG_DFL);
    try {
        return RunQvcap(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "qvcap: %s\n", error.what());
        return Number(qvo::ExitStatus::kFailed);
    }
}
