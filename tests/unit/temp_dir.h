// A directory that a test writes into: it is fresh, the test's own, and gone with everything in it
// afterwards.
#pragma once

#include <filesystem>
#include <string>
#include <system_error>
#include <unistd.h>

class CTempDir
{
public:
    CTempDir()
        : m_strPath((std::filesystem::temp_directory_path() / "rkdb_test_").string() + std::string(6, 'X'))
    {
        if (!::mkdtemp(m_strPath.data()))
            throw std::system_error(errno, std::generic_category(), m_strPath);
    }
    ~CTempDir()
    {
        std::error_code error;
        std::filesystem::remove_all(m_strPath, error);
    }
    CTempDir(const CTempDir&) = delete;
    CTempDir& operator=(const CTempDir&) = delete;

    const std::string& Path() const { return m_strPath; }

private:
    std::string m_strPath;
};
