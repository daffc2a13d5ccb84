#include "Document.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace qvtest {

std::string RecoveryDocument() {
    std::ifstream file(QV_RECOVERY_DOCUMENT);
    std::ostringstream document;
    document << file.rdbuf();
    return document.str();
}

void ExpectTableInDocument(const std::string& name, const std::string& lines) {
    if (const char* folder = std::getenv("QV_RECOVERY_TABLES")) {
        std::ofstream file(std::string(folder) + "/" + name);
        file << lines;
        EXPECT_TRUE(file.flush().good()) << folder;
        return;
    }
    const std::string document = RecoveryDocument();
    const std::string first =
        "<!-- " + name + "-table begins: scripts/recovery-table writes it -->\n";
    const size_t begin = document.find(first);
    const size_t end = document.find("<!-- " + name + "-table ends -->\n");
    ASSERT_NE(document.npos, begin) << first;
    ASSERT_NE(document.npos, end) << name;
    ASSERT_LT(begin, end);
    EXPECT_EQ(lines, document.substr(begin + first.size(), end - begin - first.size()))
        << "run scripts/recovery-table";
}

}  // namespace qvtest
