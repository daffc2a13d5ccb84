// From a request number and the memory of its argument to the model, and back.
//
// Knows the wire; does not know how the caller got here (a door does) nor what a card does with a
// request (the model and the handlers do). Any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "CallerMemory.h"
#include "Model.h"

namespace qvsim {

struct Row;

// A wait of a caller whose door serves others meanwhile: instead of sleeping, the handler leaves it
// here, and the door asks again until it is answered.
struct ParkedWait {
    std::vector<uint64_t> events;  // empty: nothing was parked
    bool takes = false;            // ends by consuming its one event
    int timeout = 0;               // milliseconds, negative: none
    std::string line;              // for the journal, written when the wait ends

    bool Parked() const { return !events.empty(); }
};

// One request on its way through a handler; the model's lock is held.
struct Call {
    Model& model;
    Model::Lock& lock;
    OpenFile& file;
    Channel* channel;  // null on the event node
    const Row& row;
    CallerMemory& memory;
    uint8_t* record;  // as it came from the caller; handed back when the row reads
    uint32_t size;
    const std::vector<FaultEffect>& effects;
    ParkedWait* parked;     // null: a wait may sleep
    std::string arguments;  // decoded, for the journal

    template <class Record>
    Record& As() const {
        return *reinterpret_cast<Record*>(record);  // every record is packed: alignment 1
    }
    // Adds " name=value" to the journal line.
    void Note(const char* name, const std::string& value);
    void NoteNumber(const char* name, int64_t value);
    void NoteHex(const char* name, uint64_t value);
};

using Handler = Answer (*)(Call&);

struct Row {
    const char* name;  // the operation's name; what faults and the journal call it
    uint32_t code;     // the whole request number
    Handler handler;
    const char* key;   // settings: where the value is kept
    uint32_t element;  // arrays: bytes per element; numbers: 0 unless signed

    uint32_t Size() const { return code >> 16 & 0x3FFF; }
    bool TakesRecord() const { return (code >> 30 & 1) != 0; }
    bool GivesRecord() const { return (code >> 30 & 2) != 0; }
    uint32_t Number() const { return code & 0xFF; }
};

// Null when there is no such request.
const Row* FindRow(uint32_t code);
const Row* FindRow(const std::string& name);
const Row* AllRows(size_t& count);

// Serves one request and journals it. With `parked`, a wait that cannot end at once is left there,
// and the answer says nothing.
Answer ServeRequest(Model& model, OpenFile& file, uint32_t code, uint64_t address,
                    CallerMemory& memory, ParkedWait* parked = nullptr);
// Asks again for a parked wait: true, and the answer, when it has ended. `last` ends it anyway: with
// its time-out, or with `error`.
bool AskAgain(Model& model, const ParkedWait& parked, bool last, int error, Answer& answer);

}  // namespace qvsim
