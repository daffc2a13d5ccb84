#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <new>

#include "Check.h"
#include "Description.h"
#include "Diff.h"
#include "Escape.h"
#include "Info.h"
#include "Output.h"
#include "Package.h"
#include "Signature.h"

namespace qvf {
namespace {

constexpr int kDone = 0;
constexpr int kFindings = 1;
constexpr int kUnusable = 2;
constexpr char kStandardOutput[] = "-";

struct Arguments {
    std::string input;
    std::string other;
    std::vector<std::string> inputs;
    std::string output;
    std::string key;
    CheckOptions check;
    bool json = false;
    bool all = false;
};

int Create(const Arguments& arguments, std::ostream& out) {
    const Bytes bytes = Serialize(ReadDescription(arguments.input));
    if (arguments.output == kStandardOutput)
        out.write(reinterpret_cast<const char*>(bytes.data()),
                  static_cast<std::streamsize>(bytes.size()));
    else
        WriteFile(arguments.output, bytes);
    return kDone;
}

int Extract(const Arguments& arguments) {
    const Package package = ReadPackage(arguments.input, Read::kEverything);
    NewFolder folder(arguments.output);
    WriteDescription(package, folder);
    folder.Commit();
    return kDone;
}

// One object for one file, a list of them for several.
int Info(const Arguments& arguments, std::ostream& out) {
    std::string separator;
    std::string text;
    for (const std::string& path : arguments.inputs) {
        const Package package = ReadPackage(path, Read::kEverything);
        const Digests digests = DigestsOf(package);
        text += separator + (arguments.json ? InfoJson(path, package, digests)
                                            : InfoText(path, package, digests, arguments.all));
        separator = arguments.json ? ",\n" : "\n";
    }
    if (!arguments.json)
        out << text;
    else if (arguments.inputs.size() == 1)
        out << text << "\n";
    else
        out << "[\n" << text << "\n]\n";
    return kDone;
}

int Diff(const Arguments& arguments, std::ostream& out) {
    const std::string text = DiffText(ReadPackage(arguments.input, Read::kEverything),
                                      ReadPackage(arguments.other, Read::kEverything));
    out << text;
    return text.empty() ? kDone : kFindings;
}

int CheckAll(const Arguments& arguments, std::ostream& out) {
    const CheckReport report = CheckPaths(arguments.inputs, arguments.check);
    out << (arguments.json ? ReportJson : ReportText)(report);
    return report.findings.empty() ? kDone : kFindings;
}

// Only a readable package is signed.
int SignPackages(const Arguments& arguments) {
    for (const std::string& path : arguments.inputs) {
        const Package package = ReadPackage(path, Read::kEverything);
        WriteFile(SignaturePath(path), Sign(Serialize(package), arguments.key));
    }
    return kDone;
}

// The commands; each stores its exit status in `status`.
class Commands {
  public:
    Commands(CLI::App& app, Arguments& given, std::ostream& out, int& status)
        : m_app(app), m_given(given), m_out(out), m_status(status) {}

    void AddAll() {
        AddCreate();
        AddInfo();
        AddCheck();
        AddDiff();
        AddSign();
        AddExtract();
    }

  private:
    void AddCreate() {
        CLI::App* create = m_app.add_subcommand("create", "make a package from a description");
        create->add_option("DESCRIPTION", m_given.input, "TOML file")->required();
        create->add_option("-o,--output", m_given.output, "package to write, - for standard output")
            ->required();
        create->callback([this] { m_status = Create(m_given, m_out); });
    }
    void AddInfo() {
        CLI::App* info = m_app.add_subcommand("info", "show header, section table and digests");
        info->add_option("FILE", m_given.inputs, "packages")->required();
        info->add_flag("--json", m_given.json, "as JSON");
        info->add_flag("--all", m_given.all, "reserved fields too that are zero");
        info->callback([this] { m_status = Info(m_given, m_out); });
    }
    void AddCheck() {
        CLI::App* check = m_app.add_subcommand("check", "look for what wrecks or fools a card");
        check->add_option("PATH", m_given.inputs, "packages, or folders of packages")->required();
        check->add_flag("--json", m_given.json, "as JSON");
        check->add_option("--key", m_given.check.keys, "public keys that packages are signed by");
        check->add_option("--flash-size", m_given.check.flash.size, "bytes of the cards' flash");
        check->add_option("--firmware-area", m_given.check.flash.firmwareArea,
                          "flash address of the header");
        check->callback([this] { m_status = CheckAll(m_given, m_out); });
    }
    void AddDiff() {
        CLI::App* diff = m_app.add_subcommand("diff", "show how two packages differ");
        diff->add_option("FILE", m_given.input, "package")->required();
        diff->add_option("OTHER", m_given.other, "package")->required();
        diff->callback([this] { m_status = Diff(m_given, m_out); });
    }
    void AddSign() {
        CLI::App* sign = m_app.add_subcommand("sign", "make a detached signature for each package");
        sign->add_option("FILE", m_given.inputs, "packages")->required();
        sign->add_option("--key", m_given.key, "private key, made by ssh-keygen")->required();
        sign->callback([this] { m_status = SignPackages(m_given); });
    }
    void AddExtract() {
        CLI::App* extract = m_app.add_subcommand("extract", "take a package apart");
        extract->add_option("FILE", m_given.input, "package")->required();
        extract->add_option("-d,--directory", m_given.output, "folder to make")->required();
        extract->callback([this] { m_status = Extract(m_given); });
    }

    CLI::App& m_app;
    Arguments& m_given;
    std::ostream& m_out;
    int& m_status;
};

}  // namespace

int RunQvftool(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& errors) {
    CLI::App app{"Makes, shows, checks, signs and takes apart firmware packages (.qvf)", "qvftool"};
    app.set_version_flag("--version", "qvftool " QV_VERSION);
    app.require_subcommand(1);
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("qvftool: ") + error.what() +
               "\nqvftool: run it with --help for more information\n";
    });
    Arguments given;
    int status = kDone;
    Commands commands(app, given, out, status);  // called while parsing
    commands.AddAll();
    std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
    try {
        app.parse(reversed);
    } catch (const CLI::ParseError& error) {
        return app.exit(error, out, errors) == 0 ? kDone : kUnusable;
    } catch (const Mistake& mistake) {
        errors << "qvftool: " << Escaped(mistake.what()) << "\n";
        return kUnusable;
    } catch (const std::bad_alloc&) {
        errors << "qvftool: there is not enough memory for this package\n";
        return kUnusable;
    }
    return status;
}

}  // namespace qvf
