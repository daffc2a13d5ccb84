// What must happen: the driver and qvcap-upgrade a second time, as plainly as possible.
//
// The cards are byte arrays, the tool is one straight piece of text, and neither shares code with
// tool/, lib/ or sim/. A run gives the text that must be printed, the requests that the driver must
// see and the bytes that must be in the flash. No files, no processes; any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Fault.h"
#include "support/PackageBuilder.h"

namespace qvtest {

struct RefChannel {
    int board = 0;
    int channel = 0;
    int node = 0;
    size_t flash = 0;  // which of the world's flashes
    bool lumo = false;
    std::string product;
    uint32_t version = 0;
    uint32_t firmware = 0;  // address of the header
    bool gone = false;

    std::string Path() const { return "/dev/video" + std::to_string(node); }
};

struct RefWorld {
    std::vector<RefChannel> channels;  // by node
    std::vector<Bytes> flashes;
    std::set<int> dead;  // boards without power
};

// One open or request, and which of its kind on its channel it was.
struct RefCall {
    std::string name;  // "open" or a request
    int board = -1;    // -1: the event node
    int channel = -1;
    int nth = 0;
    uint32_t offset = 0;
    uint32_t size = 0;
};

// What a power cut leaves of the sector in work is the card's business: garbage, which is neither
// what was there nor blank.
struct RefTorn {
    size_t flash = 0;
    uint32_t begin = 0;
    Bytes before;
};

struct RefMet {
    qvsim::FaultKind kind;
    RefCall call;
};

class RefDriver {
  public:
    explicit RefDriver(RefWorld start, std::vector<qvsim::Fault> faults = {})
        : world(std::move(start)), m_faults(std::move(faults)), m_seen(m_faults.size()) {}

    bool Exists(const std::string& path) const;
    bool OpenEvents();
    void CloseEvents() { Line("close /dev/qv-event = 0"); }
    bool Open(RefChannel& channel);
    void Close(const RefChannel& channel) { Line("close " + channel.Path() + " = 0"); }
    bool Simple(RefChannel& channel, const std::string& name, const std::string& detail = {});
    bool Erase(RefChannel& channel, uint32_t offset, uint32_t size);
    bool Write(RefChannel& channel, uint32_t offset, const Bytes& data);
    // The bytes delivered, fewer when the read is short; none at all on failure.
    std::optional<Bytes> Read(RefChannel& channel, uint32_t offset, uint32_t size);

    RefWorld world;
    std::vector<std::string> journal;
    std::vector<RefCall> calls;
    std::vector<RefMet> met;    // every fault, when it was met
    std::vector<RefTorn> torn;  // by power cuts

  private:
    struct Effect {
        bool hit = false;
        qvsim::FaultKind kind = qvsim::FaultKind::kSlow;
        uint32_t value = 0;
        bool Is(qvsim::FaultKind wanted) const { return hit && kind == wanted; }
    };
    void Line(const std::string& text) { journal.push_back(text); }
    Effect Meet(const std::string& name, int board, int channel, uint32_t offset, uint32_t size);
    // How much of a range is done, with the torn sector noted.
    uint32_t Done(const RefChannel& channel, uint32_t offset, uint32_t size, const Effect& effect);
    // True when the request gets as far as its work; else its line is written.
    bool Admit(RefChannel& channel, const std::string& name, const Effect& effect);
    // The line of a request that was worked on; a power cut makes it fail all the same.
    bool Finish(RefChannel& channel, const std::string& name, const std::string& detail,
                const Effect& effect);

    std::vector<qvsim::Fault> m_faults;  // at most one hits a call
    std::vector<int> m_seen;
};

struct RefOptions {
    std::optional<std::string> device;  // argument of -d; without: -a
    bool force = false;
};

struct RefRun {
    std::string output;
    int status = 0;
};

// A run of `qvcap-upgrade -y` with one package, which is made for every card of the world, and
// nothing on standard input.
RefRun RunReference(RefDriver& driver, const Bytes& package, const RefOptions& options);

}  // namespace qvtest
