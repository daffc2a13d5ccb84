// docs/recovery.md: its tables stand between marker lines and are what the tests found. With
// QV_RECOVERY_TABLES set to a folder they are written there instead, for scripts/recovery-table.
#pragma once

#include <string>

namespace qvtest {

// The whole text of the document.
std::string RecoveryDocument();

// Expects exactly these lines between the marker lines of the table `name`, or writes them to the
// file NAME of the folder.
void ExpectTableInDocument(const std::string& name, const std::string& lines);

}  // namespace qvtest
