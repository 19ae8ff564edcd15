#include "support/TempFolder.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include <gtest/gtest.h>

namespace VelTest {

namespace fs = std::filesystem;

CTempFolder::CTempFolder()
{
    std::string pattern = testing::TempDir() + "vel_test.XXXXXX";
    if (!mkdtemp(pattern.data()))
        throw std::runtime_error("no temporary folder");
    m_path = pattern;
}

CTempFolder::~CTempFolder()
{
    Remove();
}

void CTempFolder::Remove()
{
    std::error_code error;
    fs::remove_all(m_path, error);
    EXPECT_FALSE(error) << m_path << ": " << error.message();
}

std::string CTempFolder::Write(const std::string& name, const std::string& content) const
{
    const fs::path path = fs::path(m_path) / name;
    fs::create_directories(path.parent_path());
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    file.close();
    if (!file)
        throw std::runtime_error("cannot write " + path.string());
    return path.string();
}

void CTempFolder::MakeFolder(const std::string& name) const
{
    fs::create_directories(fs::path(m_path) / name);
}

std::string ReadFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool Exists(const std::string& path)
{
    struct stat status
    {
    };
    return lstat(path.c_str(), &status) == 0;
}

mode_t ModeOf(const std::string& path)
{
    struct stat status
    {
    };
    EXPECT_EQ(0, lstat(path.c_str(), &status)) << path;
    return status.st_mode & 07777;
}

} // namespace VelTest
