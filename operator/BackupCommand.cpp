// qvcap backup: the images of the cards, as packages.
#include <iostream>
#include <memory>
#include <new>
#include <nlohmann/json.hpp>

#include "Backup.h"
#include "Commands.h"
#include "Escape.h"
#include "ExitStatus.h"
#include "Library.h"
#include "ReadingBar.h"
#include "Report.h"
#include "Selection.h"
#include "StallWatch.h"

namespace qvo {
namespace {

struct BackupArguments {
    std::string folder;
    Selection selection;
    bool json = false;
};

struct Outcome {
    Card card;
    Backup backup;
    std::string problem;  // empty: everything that can be saved is saved
};

Outcome BackUp(const Card& card, const std::string& folder, ReadingBar& bar) {
    Outcome outcome{card, {}, {}};
    bar.Begin(card.Name() + " " + card.product);
    StallWatch watch(kPatience, TellOnErrors("reading " + card.Name()));
    try {
        outcome.backup = BackUpCard(card, folder, [&bar, &watch](uint64_t done, uint64_t total) {
            watch.Progress();
            bar.Show(done, total);
        });
        if (outcome.backup.images.empty())
            outcome.problem = card.Name() + ": there is no image to save";
    } catch (const qvf::Mistake& mistake) {
        outcome.problem = mistake.what();
    } catch (const std::bad_alloc&) {
        outcome.problem = card.Name() + ": there is not enough memory";
    }
    return outcome;
}

const char* ImageWord(const SavedImage& image) { return image.safe ? "safe" : "main"; }

std::string Text(const Outcome& outcome) {
    std::string text;
    const std::string card = outcome.card.Name() + ": ";
    for (const SavedImage& image : outcome.backup.images)
        text += card + ImageWord(image) + " image " + qvf::VersionText(image.version) +
                (image.wasThere ? " was saved before: " : " saved: ") + image.path + "\n";
    for (const std::string& note : outcome.backup.notes) text += card + note + "\n";
    std::string escaped;
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find('\n', at);
        escaped += qvf::Escaped(text.substr(at, end - at)) + "\n";
        at = end + 1;
    }
    return escaped;
}

Json OutcomeJson(const Outcome& outcome) {
    Json json = CardJson(outcome.card);
    json["images"] = Json::array();
    for (const SavedImage& image : outcome.backup.images)
        json["images"].push_back({{"image", ImageWord(image)},
                                  {"version", qvf::VersionText(image.version)},
                                  {"file", image.path},
                                  {"sha256", image.sha256},
                                  {"was_there", image.wasThere}});
    json["notes"] = outcome.backup.notes;
    json["problem"] = outcome.problem.empty() ? Json(nullptr) : Json(outcome.problem);
    return json;
}

void Report(const std::vector<Outcome>& outcomes, bool asJson) {
    if (asJson) {
        Json json;
        json["schema"] = "qvcap-backup";
        json["version"] = 1;
        json["cards"] = Json::array();
        for (const Outcome& outcome : outcomes) json["cards"].push_back(OutcomeJson(outcome));
        std::cout << DumpIndented(json);
        return;
    }
    for (const Outcome& outcome : outcomes) {
        std::cout << Text(outcome);
        if (!outcome.problem.empty())
            std::cerr << "qvcap: " << qvf::Escaped(outcome.problem) << "\n";
    }
}

ExitStatus BackUpAll(const BackupArguments& arguments) {
    const Library library;
    const std::vector<Card> cards = Selected(FindCards(), arguments.selection);
    std::vector<Outcome> outcomes;
    bool good = true;
    {
        ReadingBar bar(cards.size());
        for (const Card& card : cards) {
            outcomes.push_back(BackUp(card, arguments.folder, bar));
            good = good && outcomes.back().problem.empty();
        }
    }
    Report(outcomes, arguments.json);
    if (cards.empty()) {
        std::cerr << "qvcap: there is no card" << qvf::Escaped(arguments.selection.Text()) << "\n";
        return ExitStatus::kNoCard;
    }
    return good ? ExitStatus::kDone : ExitStatus::kFailed;
}

}  // namespace

void AddBackup(CLI::App& app, int& status) {
    const auto arguments = std::make_shared<BackupArguments>();
    CLI::App* command =
        app.add_subcommand("backup", "save the images of the cards as packages; reads only");
    command->add_option("FOLDER", arguments->folder, "where the packages go")
        ->required()
        ->check(NotEmpty());
    AddSelection(*command, arguments->selection);
    command->add_flag("--json", arguments->json, "as JSON");
    command->callback([arguments, &status] { status = Number(BackUpAll(*arguments)); });
}

}  // namespace qvo
