// Door 2: the nodes of the cards as real character devices, for any number of programs at once.
//
// One thread serves all nodes and waits only for messages. A request that waits for an event is
// parked until the event comes, its time is over or a signal interrupts it. A request that waits
// for a slow card (flash latencies, the fault "slow") is parked until that time has passed, with or
// without signals. The protocol handles requests, time-outs and faults, not the door.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ClientMemory.h"
#include "CuseNode.h"
#include "Protocol.h"

namespace qvsim {

// The access to the kernel; tests replace it.
struct CuseWays {
    std::function<int()> openControl;  // a non-blocking descriptor, or -1 and errno
    std::string deviceFolder = "/dev";
    std::chrono::milliseconds patience{10000};              // for the nodes to appear
    std::function<void(const std::string& line)> complain;  // prints a message for the user
};

// The control device of the running kernel.
CuseWays KernelWays();

class CuseServer {
  public:
    CuseServer(std::shared_ptr<Model> model, CuseWays ways);
    ~CuseServer();
    CuseServer(const CuseServer&) = delete;
    CuseServer& operator=(const CuseServer&) = delete;

    // Makes every node. Returns an error message, empty on success. Ends early when `stop` becomes
    // readable, see Stopped().
    std::string Start(int stop);
    // Serves until `stop`, the same descriptor, becomes readable. Returns an error message, empty
    // when `stop` ended it. All waits have ended and all files are closed when it returns.
    std::string Run();
    // Whether `stop` was readable.
    bool Stopped() const { return m_stopped; }

    // Returns when all earlier requests are served, even those that nobody waits for: the release
    // of a file comes after its close() has returned. Call it from any other thread while Run()
    // runs.
    void Settle();

  private:
    using Clock = std::chrono::steady_clock;
    struct OpenNode {
        std::shared_ptr<OpenFile> file;
        int number;  // for the journal
    };
    struct Request {
        CuseNode* node;
        uint64_t unique;
        uint64_t file;
        uint32_t code;
        uint64_t address;
        pid_t thread;
        bool interrupted = false;  // while a card was busy
    };
    struct Waiter {
        Request request;
        ParkedWait wait;
        std::optional<Clock::time_point> deadline;
    };
    struct Opener {
        CuseNode* node;
        uint64_t unique;
        pid_t thread;
        ParkedOpen open;
        Clock::time_point deadline;
        bool interrupted = false;
    };
    struct Sent {
        CuseNode* node;
        CuseMessage message;
    };

    std::string AddNode(const std::string& name);
    std::string AwaitNodes();
    // Waits for messages, `timeout` milliseconds at most, and serves them.
    std::string ServeOnce(int timeout);
    std::string Collect(int timeout, std::vector<Sent>& sent);
    std::string Serve(CuseNode& node, const CuseMessage& message);
    void TryOpen(Opener opener);
    void ServeRelease(CuseNode& node, const CuseMessage& message);
    void ServeIoctl(CuseNode& node, const CuseMessage& message);
    void Try(const Request& request, ParkedWait wait);
    void EndWait(const Request& request, const ParkedWait& wait, int error);
    void Interrupt(CuseNode& node, const CuseMessage& message);
    void AskWaiters();
    void AskOpeners();
    void NoteIfGone(CuseNode& node, int error);
    void TakeNodesAway();
    void EndWaiters(int error);
    int TimeToDeadline() const;
    bool Watch(int fd, void* what);

    std::shared_ptr<Model> m_model;
    CuseWays m_ways;
    int m_epoll;
    int m_changed;  // written to when the model's events change, or somebody waits in Settle()
    int m_stop = -1;
    bool m_stopped = false;
    bool m_complained = false;  // about callers that cannot be served
    std::vector<std::unique_ptr<CuseNode>> m_nodes;
    std::map<uint64_t, OpenNode> m_files;
    uint64_t m_nextFile = 1;
    std::vector<Waiter> m_waiters;
    std::vector<Opener> m_openers;  // whose open is late or hangs
    std::set<CuseNode*> m_gone;     // removed by a fault, and no longer served
    std::mutex m_changing;
    std::set<uint64_t> m_changedEvents;  // since the waiters were last checked

    std::mutex m_settling;
    std::condition_variable m_settled;
    uint64_t m_settleAsked = 0;
    uint64_t m_settleDone = 0;
};

}  // namespace qvsim
