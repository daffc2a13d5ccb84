// From a request number and the memory of its argument to the model, and back.
//
// Knows the requests and records; does not know how the caller got here (a door does) nor what a
// card does with a request (the model and the handlers do). Any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "CallerMemory.h"
#include "Model.h"
#include "QVDriverRequests.h"

namespace qvsim {

struct Row;

// A wait of a caller whose door serves others meanwhile: instead of sleeping, the handler stores
// here what it waits for. For an event the door asks again until there is an answer (AskAgain). For
// a slow card nothing is done yet, and the door serves the request again when the time has passed,
// with the same object.
struct ParkedWait {
    std::vector<uint64_t> events;  // empty: not for an event
    bool takes = false;            // ends by consuming its one event
    int timeout = 0;               // milliseconds, negative: none
    std::string line;              // for the journal, written when the wait ends

    std::chrono::microseconds delay{0};  // of a card; 0: none
    int delaysOver = 0;                  // how many have passed
    bool hangs = false;                  // the delay is a look at a request that hangs
    bool counted = false;                // by the faults, with these effects
    std::vector<FaultEffect> effects;

    bool ForEvent() const { return !events.empty(); }
    bool ForCard() const { return delay.count() > 0; }
    // Call it when the card's time has passed: the request may be served again.
    void DelayOver() {
        delay = {};
        if (!std::exchange(hangs, false)) ++delaysOver;
    }
};

// One request and its data for a handler.
struct Call {
    Model::Locked& cards;
    OpenFile& file;
    Channel* channel;  // null on the event node
    const Row& row;
    CallerMemory& memory;
    uint8_t* record;  // as sent by the caller; copied back if the row reads
    uint32_t size;
    const std::vector<FaultEffect>& effects;
    ParkedWait* parked;     // null: a wait may sleep
    std::string arguments;  // decoded, for the journal
    int delays = 0;         // met so far

    template <class Record>
    Record& As() const {
        return *reinterpret_cast<Record*>(record);  // every record is packed: alignment 1
    }
    // Adds " name=value" to the journal line.
    void Note(const char* name, const std::string& value);
    void NoteNumber(const char* name, int64_t value);
    void NoteHex(const char* name, uint64_t value);
    // Waits for a card, while other requests go on. False: the door waits, and the handler must
    // return without having done anything.
    bool TakeTime(std::chrono::microseconds time);
};

using Handler = Answer (*)(Call&);

struct Row {
    const char* name;  // the operation's name, also in faults and the journal
    uint32_t code;     // the whole request number
    Handler handler;
    const char* key;   // settings: where the value is kept
    uint32_t element;  // arrays: bytes per element; numbers: 0 unless signed

    template <qv::Direction direction, class Record>
    consteval Row(const qv::Request<direction, Record>& request, Handler served,
                  const char* keptAs = "", uint32_t bytes = 0)
        : name(request.name), code(request.code), handler(served), key(keptAs), element(bytes) {}

    uint32_t Size() const { return code >> 16 & 0x3FFF; }
    bool TakesRecord() const { return (code >> 30 & 1) != 0; }
    bool GivesRecord() const { return (code >> 30 & 2) != 0; }
    uint32_t Number() const { return code & 0xFF; }
};

// Null when there is no such request.
const Row* FindRow(uint32_t code);
const Row* FindRow(const std::string& name);
const Row* AllRows(size_t& count);

// Serves one request and logs it. With `parked`, a request that cannot be answered at once is
// stored there, and the returned answer is meaningless.
Answer ServeRequest(Model& model, OpenFile& file, uint32_t code, uint64_t address,
                    CallerMemory& memory, ParkedWait* parked = nullptr);
// Checks a parked wait again: true, and the answer, when it has ended. `last` ends it in any case:
// with its time-out, or with `error`.
bool AskAgain(Model& model, const ParkedWait& parked, bool last, int error, Answer& answer);

}  // namespace qvsim
