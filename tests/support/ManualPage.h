// The source of a manual page: its chapters, tables and blocks, for tests that compare the page
// with a program. Pure functions of the text.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace qvtest {

class ManualPage {
  public:
    explicit ManualPage(const std::string& path) {
        std::ifstream file(path);
        m_text.assign(std::istreambuf_iterator<char>(file), {});
        EXPECT_NE("", m_text) << path;
    }

    // The text under a heading.
    std::string Chapter(const std::string& heading) const {
        const std::string mark = "\n# " + heading + "\n";
        const size_t at = m_text.find(mark);
        EXPECT_NE(m_text.npos, at) << "no chapter " << heading;
        if (at == m_text.npos) return "";
        const size_t begin = at + mark.size();
        return m_text.substr(begin, m_text.find("\n# ", begin) - begin);
    }

    // The rows of its n-th table, from 0: the cells of each, without the marks of bold and italic
    // text.
    using Table = std::vector<std::vector<std::string>>;
    Table TableOf(const std::string& heading, size_t n = 0) const {
        std::vector<Table> tables;
        std::string line;
        bool inside = false;
        std::istringstream lines(Chapter(heading));
        while (std::getline(lines, line)) {
            const bool row = line.size() > 2 && (line[0] == '|' || line.starts_with("[["));
            const bool cell = inside && line.size() > 2 && line[0] == ':';
            if (row && !inside) tables.emplace_back();
            if (row) tables.back().emplace_back();
            if (row || cell) tables.back().back().push_back(Plain(line.substr(3)));
            inside = row || cell;
        }
        EXPECT_LT(n, tables.size()) << "too few tables under " << heading;
        return n < tables.size() ? tables[n] : Table();
    }

    // The bold words that are alone on a line, such as "*0*".
    std::vector<std::string> BoldTerms(const std::string& heading) const {
        std::vector<std::string> terms;
        std::istringstream lines(Chapter(heading));
        for (std::string line; std::getline(lines, line);)
            if (line.size() > 2 && line[0] == '*' && line.back() == '*')
                terms.push_back(line.substr(1, line.size() - 2));
        return terms;
    }

    // The text between fences.
    std::vector<std::string> Blocks(const std::string& heading) const {
        const std::string chapter = Chapter(heading);
        std::vector<std::string> blocks;
        for (size_t at = 0; (at = chapter.find("```\n", at)) != chapter.npos;) {
            const size_t end = chapter.find("\n```", at + 4);
            blocks.push_back(chapter.substr(at + 4, end + 1 - (at + 4)));
            at = end + 4;
        }
        return blocks;
    }

  private:
    static std::string Plain(const std::string& marked) {
        std::string plain;
        for (const char c : marked)
            if (c != '*' && c != '_' && c != '\\') plain += c;
        return plain;
    }

    std::string m_text;
};

}  // namespace qvtest
