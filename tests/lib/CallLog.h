// What a scripted library was called with, in order, and which calls it refuses.
//
// Base of the fakes. Guarded by the mutex: the library's threads call in.
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace fake {

class CallLog {
  public:
    // Refuses the nth call (from 1) of a function from now on, once or for ever. What the result
    // means, a return value or an errno, is the fake's to say.
    void Refuse(const std::string& function, int result, int nth = 1, bool forEver = false);
    // Refuses the nth logged call of all, whatever it is.
    void RefuseCall(int nth, int result) { Refuse("", result, nth); }

    std::vector<std::string> Calls();  // "function(arguments)", in order
    std::vector<std::string> CallsOf(const std::string& function);
    int Count(const std::string& function) { return static_cast<int>(CallsOf(function).size()); }

    // Used by the fake functions, with the mutex held: logs, and says whether to refuse.
    bool Enter(const std::string& function, const std::string& arguments, int* result);

    std::recursive_mutex mutex;

  protected:
    void ForgetCalls();

  private:
    struct Refusal {
        std::string function;  // empty: any
        int result;
        int skip;
        bool forEver;
    };
    std::vector<std::string> m_calls;
    std::vector<Refusal> m_refusals;
};

}  // namespace fake
