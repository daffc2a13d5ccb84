// A program that works beside a test, told by lines on its standard input, heard by its lines.
//
// Every wait has a limit, so that a program that says nothing fails the test instead of holding it.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace lab {

class Companion {
  public:
    // Starts it; PATH is searched.
    explicit Companion(const std::vector<std::string>& command);
    // Ends it with SIGTERM and waits; it must end with 0.
    ~Companion();
    Companion(const Companion&) = delete;
    Companion& operator=(const Companion&) = delete;

    // The next line that begins so; "" after a failure. Lines before it are skipped.
    std::string Await(const std::string& start);
    void Tell(const std::string& line);

  private:
    bool ReadMore();
    pid_t m_child = -1;
    int m_in = -1;
    int m_out = -1;
    std::string m_text;
};

// What a program prints; it must end with 0.
std::string Output(const std::string& command);

// Open descriptors of this process.
int DescriptorsOpen();

// What this process's threads of one name ask of the machine.
struct Load {
    double busy;    // part of the time on a processor
    double sleeps;  // a second
};
// Over a second.
Load LoadOf(const std::string& threadName);

}  // namespace lab
