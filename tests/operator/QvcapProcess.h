// The real qvcap as a process of its own, over simulated cards, in a folder of its own. `poweroff`,
// `sudo` and what else could turn the machine off are recording stand-ins, first on its PATH. One
// thread; one run at a time.
#pragma once

#include <string>
#include <vector>

#include "support/SimRig.h"
#include "support/TempFolder.h"

namespace qvtest {

struct QvcapRun {
    int status = -1;  // exit status; -1 when a signal ended it
    std::string output;
    std::string errors;  // on a terminal, both are in `output`
};

class QvcapFolder {
  public:
    QvcapFolder();

    // Where it is run; packages go here.
    const std::string& Dir() const { return m_work; }
    std::string operator/(const std::string& name) const { return m_work + "/" + name; }

    // `arguments` begin with the command; nothing on standard input, the streams into files.
    QvcapRun Run(qvsim::SimRig& rig, const std::vector<std::string>& arguments);
    // The unchanged tool in the same way.
    QvcapRun Tool(qvsim::SimRig& rig, const std::vector<std::string>& arguments);
    // On a terminal of so many columns.
    QvcapRun OnTerminal(qvsim::SimRig& rig, const std::vector<std::string>& arguments, int columns);
    // Which stand-ins ran, one a line.
    std::string Commands() const;

  private:
    std::vector<std::string> Environment(const std::string& cards) const;
    QvcapRun RunProgram(qvsim::SimRig& rig, const std::string& file, const std::string& name,
                        const std::vector<std::string>& arguments);

    const TempFolder m_temporary{"qvcap"};
    const std::string m_root = m_temporary.Path();
    const std::string m_work = m_root + "/work";
};

// For the next process that meets it.
void AddFaultNow(qvsim::SimRig& rig, const qvsim::Fault& fault);

// The same for texts of one line each.
std::string SchemaErrorsOfLines(const std::string& schema, const std::string& lines);
// What is wrong with a JSON text by a schema of docs/formats; empty when it is valid.
std::string SchemaErrors(const std::string& schema, const std::string& json);

std::string ReadWholeFile(const std::string& path);

}  // namespace qvtest
