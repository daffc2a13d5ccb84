// The tables of qvf(5), held against the records of the tool.
#include <gtest/gtest.h>
#include "FirmwarePackage.h"

#include <cstring>

#include "support/ManualPage.h"

namespace qvtest {
namespace {

class FormatPageTest : public testing::Test {
  protected:
    // Offset and size of each row, without the headings.
    ManualPage::Table Rows(const std::string& heading) const {
        ManualPage::Table rows = page.TableOf(heading);
        if (!rows.empty()) rows.erase(rows.begin());
        for (auto& row : rows) row.resize(2);
        return rows;
    }
    static std::vector<std::string> Row(size_t offset, size_t size) {
        return {std::to_string(offset), std::to_string(size)};
    }

    ManualPage page{QV_MANUAL_FOLDER "/qvf.5.scd"};
};

#define QV_FIELD(record, field) Row(offsetof(record, field), sizeof(record::field))

TEST_F(FormatPageTest, TheFixedPartIsThatOfTheHeader) {
    EXPECT_EQ((ManualPage::Table{
                  QV_FIELD(_QV_FIRMWARE_HEADER, magic),
                  QV_FIELD(_QV_FIRMWARE_HEADER, reserved4),
                  QV_FIELD(_QV_FIRMWARE_HEADER, compatibilityCode),
                  QV_FIELD(_QV_FIRMWARE_HEADER, headerLength),
                  QV_FIELD(_QV_FIRMWARE_HEADER, productCode),
                  QV_FIELD(_QV_FIRMWARE_HEADER, hardwareVersion),
                  QV_FIELD(_QV_FIRMWARE_HEADER, reserved15),
                  QV_FIELD(_QV_FIRMWARE_HEADER, firmwareVersion),
                  QV_FIELD(_QV_FIRMWARE_HEADER, reserved20),
                  QV_FIELD(_QV_FIRMWARE_HEADER, sectionCount),
              }),
              Rows("FIXED PART"));
}

TEST_F(FormatPageTest, TheTableEntryIsThatOfASection) {
    EXPECT_EQ((ManualPage::Table{
                  QV_FIELD(_QV_FIRMWARE_SECTION_HEADER, name),
                  QV_FIELD(_QV_FIRMWARE_SECTION_HEADER, address),
                  QV_FIELD(_QV_FIRMWARE_SECTION_HEADER, size),
                  QV_FIELD(_QV_FIRMWARE_SECTION_HEADER, reserved24),
              }),
              Rows("SECTION TABLE ENTRY"));
}

TEST_F(FormatPageTest, TheFileIsFixedPartTableAndData) {
    const std::string fixed = std::to_string(kHeaderFixedLength);
    const std::string table = std::to_string(kSectionHeaderLength) + " × count";
    EXPECT_EQ((ManualPage::Table{
                  {"0", fixed}, {fixed, table}, {fixed + " + " + table, "sum of the sizes"}}),
              Rows("DESCRIPTION"));
    EXPECT_EQ("magic: the characters QVFH", page.TableOf("FIXED PART").at(1).at(2));
    EXPECT_NE(std::string::npos, page.Chapter("WHICH PACKAGE IS TAKEN")
                                     .find("at most " + std::to_string(kMaxQVFFiles) + ","));
}

// The names with a meaning are slanted in their chapter.
TEST_F(FormatPageTest, NamesMeanWhatThePageSays) {
    const std::string chapter = page.Chapter("SECTION TABLE ENTRY");
    EXPECT_NE(chapter.npos, chapter.find("begins with _Upgrade._ belongs to the upgrade image"));
    EXPECT_NE(chapter.npos, chapter.find("contains _Factory.CLR._ or _Upgrade.CLR_ marks"));
    _QV_FIRMWARE_SECTION_HEADER section = {};
    std::strcpy(section.name, "Upgrade.");
    EXPECT_TRUE(IsMatchedSection(0, &section));
    std::strcpy(section.name, "Upgrade");
    EXPECT_FALSE(IsMatchedSection(0, &section));
    for (const char* clear : {"Factory.CLR.", "Upgrade.CLR"}) EXPECT_TRUE(IsCLRSection(clear));
    for (const char* other : {"Factory.CLR", "Upgrade.CL"}) EXPECT_FALSE(IsCLRSection(other));
}

}  // namespace
}  // namespace qvtest
