// qvcap doctor: what is wrong, and what to do.
#include <algorithm>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

#include "Commands.h"
#include "Doctor.h"
#include "Escape.h"
#include "ExitStatus.h"
#include "Report.h"
#include "Selection.h"

namespace qvo {
namespace {

constexpr int kLongestTimeout = 3600;  // seconds

struct DoctorArguments {
    Surroundings surroundings;
    bool json = false;
};

bool Any(const std::vector<Observation>& seen, Severity severity) {
    return std::any_of(seen.begin(), seen.end(), [severity](const Observation& observation) {
        return observation.severity == severity;
    });
}

bool HasChannel(const std::vector<Observation>& seen) {
    return std::any_of(seen.begin(), seen.end(), [](const Observation& observation) {
        return observation.severity == Severity::kOk && observation.check == kChannelsCheck;
    });
}

std::string Text(const Observation& observation) {
    std::string severity = std::string(SeverityText(observation.severity)) + ":";
    severity.resize(9, ' ');
    std::string text = severity + observation.check + ": ";
    if (!observation.subject.empty()) text += qvf::Escaped(observation.subject) + " ";
    text += qvf::Escaped(observation.message) + "\n";
    if (!observation.advice.empty())
        text += "         do: " + qvf::Escaped(observation.advice) + "\n";
    return text;
}

Json ToJson(const std::vector<Observation>& seen) {
    Json json;
    json["schema"] = "qvcap-doctor";
    json["version"] = 1;
    json["findings"] = Json::array();
    for (const Observation& observation : seen)
        json["findings"].push_back(
            {{"severity", SeverityText(observation.severity)},
             {"check", observation.check},
             {"subject", observation.subject.empty() ? Json(nullptr) : Json(observation.subject)},
             {"message", observation.message},
             {"advice", observation.advice.empty() ? Json(nullptr) : Json(observation.advice)}});
    return json;
}

ExitStatus Doctor(const DoctorArguments& arguments) {
    const std::vector<Observation> seen = Examine(arguments.surroundings);
    if (arguments.json)
        std::cout << DumpIndented(ToJson(seen));
    else
        for (const Observation& observation : seen) std::cout << Text(observation);
    if (!HasChannel(seen)) return ExitStatus::kNoCard;
    return Any(seen, Severity::kError) ? ExitStatus::kFailed : ExitStatus::kDone;
}

}  // namespace

void AddDoctor(CLI::App& app, int& status) {
    const auto arguments = std::make_shared<DoctorArguments>();
    arguments->surroundings.packages = ".";
    CLI::App* command =
        app.add_subcommand("doctor", "say what is wrong and what to do; reads only");
    command->add_option("--packages", arguments->surroundings.packages, "folder of the packages")
        ->check(NotEmpty());
    command
        ->add_option("--timeout", arguments->surroundings.timeout,
                     "seconds that a card has for its answer")
        ->check(CLI::Range(1, kLongestTimeout));
    command->add_flag("--json", arguments->json, "as JSON");
    command->callback([arguments, &status] { status = Number(Doctor(*arguments)); });
}

}  // namespace qvo
