// TempFolder: a folder of a test's own, gone with it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace Orvex::Testing {

class TempFolder {
public:
    TempFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "reticor-test-").string();
        name.append(6, 'X');  // mkdtemp puts letters of its own here
        m_path = mkdtemp(name.data()) != nullptr ? name : std::string();
    }
    ~TempFolder() {
        std::error_code error;
        if (!m_path.empty()) {
            std::filesystem::remove_all(m_path, error);
        }
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

}  // namespace Orvex::Testing
