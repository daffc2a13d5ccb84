// Log and refusals of the scripted libraries; see CallLog.h.
#include "lib/CallLog.h"

namespace fake {

void CallLog::ForgetCalls() {
    m_calls.clear();
    m_refusals.clear();
}

void CallLog::Refuse(const std::string& function, int result, int nth, bool forEver) {
    const std::lock_guard lock(mutex);
    m_refusals.push_back({function, result, nth - 1, forEver});
}

std::vector<std::string> CallLog::Calls() {
    const std::lock_guard lock(mutex);
    return m_calls;
}

std::vector<std::string> CallLog::CallsOf(const std::string& function) {
    std::vector<std::string> found;
    for (const std::string& call : Calls())
        if (call.rfind(function + "(", 0) == 0) found.push_back(call);
    return found;
}

bool CallLog::Enter(const std::string& function, const std::string& arguments, int* result) {
    m_calls.push_back(function + "(" + arguments + ")");
    for (auto refusal = m_refusals.begin(); refusal != m_refusals.end(); ++refusal) {
        if (!refusal->function.empty() && refusal->function != function) continue;
        if (refusal->skip > 0) {
            --refusal->skip;
            continue;
        }
        *result = refusal->result;
        if (!refusal->forEver) m_refusals.erase(refusal);
        return true;
    }
    return false;
}

}  // namespace fake
