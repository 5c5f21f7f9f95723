// filesTest.h - a fresh directory for a test of files, removed with all that is in it.

#pragma once

#include "korutil/korFile.h"
#include "korutil/korRand.h"

#include "support/korTest.h"

#include <filesystem>
#include <fstream>

namespace kor::test {

class FilesTest : public KorTest
{
protected:
    FilesTest()
    {
        _korRand_Open(KOR_AT(ex, 0));
        char name[KOR_FILE_TEMP_NAME_SIZE];
        _korFile_MakeTempFileName(KOR_AT(ex, 0), name);
        directory_ = std::filesystem::temp_directory_path() / (std::string("kor-files-") + name);
        std::filesystem::create_directory(directory_);
    }
    ~FilesTest() override { std::filesystem::remove_all(directory_); }

    std::string path(const std::string& name) const { return (directory_ / name).string(); }

    std::string write(const std::string& name, const std::string& content) const
    {
        std::ofstream(path(name), std::ios::binary) << content;
        return path(name);
    }

    std::string content(const std::string& name) const
    {
        std::ifstream file(path(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

private:
    std::filesystem::path directory_;
};

} // namespace kor::test
