// A test's own folder below TMPDIR, removed with its object. Any thread.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace qvtest {

class TempFolder {
  public:
    // The name says whose it is, in case it is left over. A test cannot go on without its folder.
    explicit TempFolder(const std::string& name) {
        m_path = (std::filesystem::temp_directory_path() / (name + "-XXXXXX")).string();
        if (mkdtemp(m_path.data()) != nullptr) return;
        std::perror(m_path.c_str());
        std::abort();
    }
    ~TempFolder() {
        std::error_code ignored;  // a leftover in the temporary folder breaks nothing
        std::filesystem::remove_all(m_path, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    const std::string& Path() const { return m_path; }

  private:
    std::string m_path;
};

}  // namespace qvtest
