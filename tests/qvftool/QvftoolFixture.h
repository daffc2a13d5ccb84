// qvftool run inside the test's process, in a folder of its own.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "support/PackageBuilder.h"
#include "support/TempFolder.h"

namespace qvtest {

struct QvftoolRun {
    int status = -1;
    std::string output;
    std::string errors;
};

class QvftoolFixture : public testing::Test {
  protected:
    QvftoolFixture() : m_before(std::filesystem::current_path()) {
        std::filesystem::current_path(m_folder);
    }
    ~QvftoolFixture() override { std::filesystem::current_path(m_before); }

    static QvftoolRun Run(const std::vector<std::string>& arguments) {
        std::ostringstream out;
        std::ostringstream errors;
        QvftoolRun run;
        run.status = qvf::RunQvftool(arguments, out, errors);
        run.output = out.str();
        run.errors = errors.str();
        return run;
    }
    static Bytes Content(const std::string& path) {
        std::ifstream file(path, std::ios::binary);
        EXPECT_TRUE(file.is_open()) << path;
        return Bytes(std::istreambuf_iterator<char>(file), {});
    }
    static std::string Text(const std::string& path) {
        const Bytes bytes = Content(path);
        return std::string(bytes.begin(), bytes.end());
    }
    static void Put(const std::string& path, const std::string& text) {
        PackageBuilder::WriteBytes(path, Bytes(text.begin(), text.end()));
    }
    // Everything that is in the folder, by name.
    static std::vector<std::string> Here() {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator("."))
            names.push_back(entry.path().filename().string());
        return names;
    }

  private:
    std::filesystem::path m_before;
    const qvtest::TempFolder m_temporary{"qvftool"};
    const std::filesystem::path m_folder = m_temporary.Path();
};

}  // namespace qvtest
