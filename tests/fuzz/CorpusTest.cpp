// Every file of fuzz/corpus through its target: what fuzzing has found once stays found.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "Targets.h"

namespace {

class Corpus : public testing::TestWithParam<qvfuzz::Target> {};

TEST_P(Corpus, EveryFilePassesItsTarget) {
    std::vector<std::filesystem::path> files;
    for (const auto& entry :
         std::filesystem::directory_iterator(std::string(QV_CORPUS) + "/" + GetParam().name))
        files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    EXPECT_GE(files.size(), 3u);
    for (const std::filesystem::path& file : files) {
        SCOPED_TRACE(file.filename());
        std::ifstream stream(file, std::ios::binary);
        const std::vector<char> bytes((std::istreambuf_iterator<char>(stream)),
                                      std::istreambuf_iterator<char>());
        testing::internal::CaptureStdout();
        GetParam().run(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
        testing::internal::GetCapturedStdout();
    }
    // Nothing at all is an input, too.
    testing::internal::CaptureStdout();
    GetParam().run(reinterpret_cast<const uint8_t*>(""), 0);
    testing::internal::GetCapturedStdout();
}

INSTANTIATE_TEST_SUITE_P(Targets, Corpus, testing::ValuesIn(qvfuzz::kTargets),
                         [](const auto& tested) { return std::string(tested.param.name); });

}  // namespace
