// korFile_test.cpp - files at offsets, what a failure says, directories and their walks, the process's texts.

#include "filesTest.h"
#include "support/failingHeap.h"
#include "support/smallDisk.h"

#include <cstring>
#include <set>
#include <thread>
#include <vector>

#ifndef _WIN32
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#endif

namespace {

using namespace kor::test;
using KorFileTest = FilesTest;

TEST_F(KorFileTest, FlagsSayWhatIsMade)
{
    std::string name = path("file");
    EXPECT_EQ(_korFile_Open(KOR_AT(ex, 0), name.c_str(), 0), nullptr);
    EXPECT_NE(ex->osError, 0);
    EXPECT_RAISED(9, "File cannot be found.");
    EXPECT_EQ(_korFile_Open(KOR_AT(ex, 0), nullptr, 0), nullptr);
    EXPECT_RAISED(9, "File cannot be found.");
    for (uint32_t flags : {KOR_FILE_MUST_BE_NEW | KOR_FILE_CREATE, KOR_FILE_CREATE | KOR_FILE_WRITE_THROUGH, 0U,
                           KOR_FILE_NO_SYNC | KOR_FILE_SHARE_DELETE}) {
        korFile* file = _korFile_Open(KOR_AT(ex, 0), name.c_str(), flags);
        ASSERT_NE(file, nullptr) << flags;
        EXPECT_EQ(file->syncOnClose, (flags & KOR_FILE_NO_SYNC) == 0);
        _korFile_Close(KOR_AT_D(0, ex), file);
    }
    EXPECT_EQ(_korFile_Open(KOR_AT(ex, 0), name.c_str(), KOR_FILE_MUST_BE_NEW | KOR_FILE_CREATE), nullptr);
    EXPECT_RAISED(9, "File cannot be found.");
    EXPECT_EQ(_korFile_Open(KOR_AT(ex, 0), path("").c_str(), 0), nullptr); // a directory
    EXPECT_RAISED(8, "File cannot be opened.");
    _korFile_Close(KOR_AT_D(0, ex), nullptr);
}

TEST_F(KorFileTest, TransfersStandAtTheirOffsets)
{
    korFile* file = _korFile_Open(KOR_AT(ex, 0), path("file").c_str(), KOR_FILE_CREATE);
    char buffer[16] = {};
    uint8_t fatal = 9;
    EXPECT_EQ(_korFile_Write(KOR_AT(ex, 0), file, 5, "end", 3, &fatal), 3);
    EXPECT_EQ(fatal, 0);
    file->syncOnWrite = 1;
    EXPECT_EQ(_korFile_Write(KOR_AT(ex, 0), file, 0, "start", 5, nullptr), 5);
    EXPECT_EQ(_korFile_Read(KOR_AT(ex, 0), file, 3, buffer, sizeof buffer), 5); // a short read is no error
    EXPECT_STREQ(buffer, "rtend");
    EXPECT_EQ(_korFile_Read(KOR_AT(ex, 0), file, 100, buffer, 1), 0);
    EXPECT_EQ(_korFile_Read(KOR_AT(ex, 0), file, -1, buffer, 0), 0);
    constexpr int64_t far = int64_t{5} << 30;
    EXPECT_EQ(_korFile_Write(KOR_AT(ex, 0), file, far, "x", 1, nullptr), 1); // a file with a hole
    EXPECT_EQ(_korFile_Read(KOR_AT(ex, 0), file, far - 1, buffer, 2), 2);
    EXPECT_EQ(buffer[1], 'x');
    _korFile_Sync(KOR_AT(ex, 0), file);
    EXPECT_CLEAN();

    EXPECT_EQ(_korFile_Read(KOR_AT(ex, 0), file, -1, buffer, 1), -1);
    EXPECT_RAISED(15, "Cannot read before beginning of file.");
    EXPECT_EQ(_korFile_Write(KOR_AT(ex, 0), file, -1, buffer, 0, &fatal), 0);
    EXPECT_EQ(fatal, 0);
    EXPECT_EQ(_korFile_Write(KOR_AT(ex, 0), file, -1, buffer, 1, &fatal), -1);
    EXPECT_EQ(fatal, 1);
    EXPECT_EQ(_korFile_Write(KOR_AT(ex, 0), file, 0, buffer, 1, nullptr), 1); // pending: nothing is written
    EXPECT_EQ(_korFile_Read(KOR_AT(ex, 0), file, 0, buffer, 1), -1);
    _korFile_Close(KOR_AT_D(0, ex), file); // works all the same
    EXPECT_RAISED(15, "Cannot write before beginning of file.");
}

TEST_F(KorFileTest, ThreadsWriteSideBySide)
{
#ifdef _WIN32
    GTEST_SKIP() << "a transfer is a seek and a write here; users take turns";
#endif
    constexpr int each = 200;
    constexpr int blockSize = 64;
    korFile* file = _korFile_Open(KOR_AT(ex, 0), path("file").c_str(), KOR_FILE_CREATE | KOR_FILE_NO_SYNC);
    auto fill = [&](int part) {
        korEx* own = korEx_Create();
        std::string block(blockSize, static_cast<char>('a' + part));
        for (int i = 0; i < each; i++) {
            EXPECT_EQ(
                _korFile_Write(KOR_AT(own, 0), file, (2 * i + part) * blockSize, block.data(), blockSize, nullptr),
                blockSize);
        }
        EXPECT_TRUE(clean(own));
        korEx_Destroy(own);
    };
    std::thread other(fill, 1);
    fill(0);
    other.join();
    _korFile_Close(KOR_AT_D(0, ex), file);
    std::string expected;
    for (int i = 0; i < 2 * each; i++) {
        expected += std::string(blockSize, static_cast<char>('a' + i % 2));
    }
    EXPECT_EQ(content("file"), expected);
}

#ifndef _WIN32
TEST_F(KorFileTest, AWriteSaysIfItMaySucceedLater)
{
    korFile* full = _korFile_Open(KOR_AT(ex, 0), "/dev/full", KOR_FILE_NO_SYNC);
    if (full == nullptr) {
        korEx_Clear(ex);
        GTEST_SKIP() << "there is no device without space here";
    }
    uint8_t fatal = 9;
    EXPECT_EQ(_korFile_Write(KOR_AT(ex, 0), full, 0, "x", 1, &fatal), -1);
    EXPECT_EQ(fatal, 0);
    EXPECT_EQ(ex->osError, ENOSPC);
    EXPECT_RAISED(15, "File write failed.");
    _korFile_Close(KOR_AT_D(0, ex), full);

    korFile* limited = _korFile_Open(KOR_AT(ex, 0), path("file").c_str(), KOR_FILE_CREATE);
    rlimit before;
    getrlimit(RLIMIT_FSIZE, &before);
    rlimit none = {0, before.rlim_max};
    auto handler = std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &none);
    EXPECT_EQ(_korFile_Write(KOR_AT(ex, 0), limited, 0, "x", 1, &fatal), -1);
    setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, handler);
    EXPECT_EQ(fatal, 1);
    EXPECT_RAISED(15, "File write failed.");
    _korFile_Close(KOR_AT_D(0, ex), limited);

    std::string pipe = path("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    korFile* unseekable = _korFile_Open(KOR_AT(ex, 0), pipe.c_str(), KOR_FILE_NO_SYNC);
    EXPECT_EQ(_korFile_Write(KOR_AT(ex, 0), unseekable, 0, "x", 1, &fatal), -1);
    EXPECT_EQ(fatal, 0);
    EXPECT_RAISED(15, "File seek failed.");
    _korFile_Close(KOR_AT_D(0, ex), unseekable);
}

// A block that did not fit is not lost: once there is room, the same write succeeds, and what was there has stayed.
TEST_F(KorFileTest, AFullDiskIsUsableAgainWhenThereIsRoom)
{
    bool mounted = onSmallDisk(path(""), [this] {
        const std::string block(16 * 1024, 'b');
        std::ofstream(path("ballast")) << std::string(smallDiskSize / 2, 'a');
        korFile* file = _korFile_Open(KOR_AT(ex, 0), path("file").c_str(), KOR_FILE_CREATE);
        const auto size = static_cast<int32_t>(block.size());
        int64_t offset = 0;
        uint8_t fatal = 9;
        while (offset < smallDiskSize &&
               _korFile_Write(KOR_AT(ex, 0), file, offset, block.data(), size, &fatal) == size) {
            offset += size;
        }
        EXPECT_GE(offset, size);
        EXPECT_EQ(fatal, 0);
        EXPECT_EQ(ex->osError, ENOSPC);
        EXPECT_RAISED(15, "File write failed.");
        std::filesystem::remove(path("ballast"));
        EXPECT_EQ(_korFile_Write(KOR_AT(ex, 0), file, offset, block.data(), size, &fatal), size);
        _korFile_Close(KOR_AT_D(0, ex), file);
        EXPECT_CLEAN();
        EXPECT_EQ(content("file"), std::string(static_cast<size_t>(offset + size), 'b'));
    });
    if (!mounted) {
        GTEST_SKIP() << "this user may not mount";
    }
}

TEST_F(KorFileTest, AReadOnlyDiskDeniesEveryChange)
{
    bool mounted = onSmallDisk(path(""), [this] {
        write("old", "content");
        ASSERT_TRUE(makeReadOnly(path("")));
        EXPECT_EQ(_korFile_Open(KOR_AT(ex, 0), path("new").c_str(), KOR_FILE_CREATE), nullptr);
        EXPECT_EQ(ex->osError, EROFS);
        EXPECT_RAISED(KOR_ERROR_NOT_PERMITTED, "File cannot be opened.");
        EXPECT_EQ(_korFile_Open(KOR_AT(ex, 0), path("old").c_str(), 0), nullptr);
        EXPECT_RAISED(KOR_ERROR_NOT_PERMITTED, "File cannot be opened.");
        _korFile_Rename(KOR_AT(ex, 0), path("old").c_str(), path("new").c_str());
        EXPECT_EQ(ex->osError, EROFS);
        EXPECT_NE(ex->code, 0);
        korEx_Clear(ex);
        _korFile_DeletePath(KOR_AT(ex, 0), path("old").c_str());
        EXPECT_EQ(ex->osError, EROFS);
        EXPECT_NE(ex->code, 0);
        korEx_Clear(ex);
        EXPECT_EQ(content("old"), "content");
    });
    if (!mounted) {
        GTEST_SKIP() << "this user may not mount";
    }
}
#endif

TEST_F(KorFileTest, FilesAreRenamedAndDeleted)
{
    std::string one = write("one", "1");
    std::string two = write("two", "2");
    _korFile_Rename(KOR_AT(ex, 0), one.c_str(), two.c_str()); // never over another file
    EXPECT_NE(ex->osError, 0);
    EXPECT_RAISED(15, "File cannot be renamed.");
    EXPECT_EQ(content("two"), "2");
    _korFile_Rename(KOR_AT(ex, 0), one.c_str(), path("three").c_str());
    EXPECT_EQ(content("three"), "1");
    EXPECT_EQ(_korFile_Exists(KOR_AT(ex, 0), one.c_str()), 0);
    EXPECT_EQ(_korFile_Exists(KOR_AT(ex, 0), two.c_str()), 1);
    _korFile_DeletePath(KOR_AT(ex, 0), two.c_str());
    EXPECT_EQ(_korFile_Exists(KOR_AT(ex, 0), two.c_str()), 0);
    EXPECT_CLEAN();
    _korFile_DeletePath(KOR_AT(ex, 0), two.c_str());
    EXPECT_RAISED(15, "File cannot be deleted.");
    _korFile_DeletePath(KOR_AT(ex, 0), path("").c_str());
    EXPECT_RAISED(15, "File cannot be deleted.");
    _korFile_RmDir(KOR_AT(ex, 0), path("").c_str()); // not empty
    EXPECT_RAISED(15, "Cannot remove directory");
}

#ifndef _WIN32
mode_t currentMask()
{
    mode_t mask = umask(0);
    umask(mask);
    return mask;
}
#endif

TEST_F(KorFileTest, DirectoriesAreMadeAWholePathAtATime)
{
#ifndef _WIN32
    mode_t mask = umask(027);
#endif
    std::string separator(1, static_cast<char>(std::filesystem::path::preferred_separator));
    std::string deep = path("a") + separator + separator + "b" + separator + "c";
    _korFile_MkDir(KOR_AT(ex, 0), deep.c_str(), 0);
    EXPECT_RAISED(15, "Cannot create directory");
    _korFile_MkDir(KOR_AT(ex, 0), deep.c_str(), 1);
    _korFile_MkDir(KOR_AT(ex, 0), deep.c_str(), 1); // is there
    _korFile_MkDir(KOR_AT(ex, 0), (path("d") + separator).c_str(), 1);
    EXPECT_CLEAN();
    EXPECT_TRUE(std::filesystem::is_directory(deep) && std::filesystem::is_directory(path("d")));
    std::string file = write("file", "");
    _korFile_MkDir(KOR_AT(ex, 0), file.c_str(), 0);
    EXPECT_RAISED(15, "File exists but is not a directory");
    _korFile_MkDir(KOR_AT(ex, 0), (file + separator + "x").c_str(), 1);
    EXPECT_RAISED(15, "File exists but is not a directory");
#ifndef _WIN32
    EXPECT_EQ(currentMask(), 027U);
    struct stat status;
    EXPECT_EQ(stat(deep.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0777U);
    umask(mask);
#endif
    _korFile_RmDir(KOR_AT(ex, 0), deep.c_str());
    EXPECT_FALSE(std::filesystem::exists(deep));
}

TEST_F(KorFileTest, AWalkYieldsPlainFiles)
{
    char name[64];
    std::filesystem::create_directory(path("directory"));
    EXPECT_EQ(_korDirHandle_FirstFile(KOR_AT(ex, 0), path("").c_str(), name, sizeof name), nullptr);
    EXPECT_CLEAN();
    EXPECT_EQ(_korDirHandle_FirstFile(KOR_AT(ex, 0), path("none").c_str(), name, sizeof name), nullptr);
    EXPECT_RAISED(15, "Directory cannot be opened.");
    std::set<std::string> expected;
    for (int i = 0; i < 50; i++) {
        write("file" + std::to_string(i), "");
        expected.insert("file" + std::to_string(i));
    }
#ifndef _WIN32
    std::filesystem::create_symlink(path("file1"), path("link"));
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
#endif
    std::set<std::string> found;
    korDirHandle* walk = _korDirHandle_FirstFile(KOR_AT(ex, 0), path("").c_str(), name, sizeof name);
    ASSERT_NE(walk, nullptr);
    do {
        EXPECT_TRUE(found.insert(name).second) << name;
    } while (_korDirHandle_NextFile(KOR_AT(ex, 0), walk, name, sizeof name) != 0);
    EXPECT_EQ(found, expected);
    _korDirHandle_Close(KOR_AT_D(0, ex), walk);
    walk = _korDirHandle_FirstFile(KOR_AT(ex, 0), path("").c_str(), name, 4);
    EXPECT_STREQ(name, "fil");
    _korDirHandle_Close(KOR_AT_D(0, ex), walk);
}

TEST_F(KorFileTest, PathsAndTheTemporaryPlace)
{
    char separator = static_cast<char>(std::filesystem::path::preferred_separator);
    char path[16] = "ab";
    EXPECT_EQ(_korFile_AppendPath(KOR_AT(ex, 0), path, sizeof path, "cde", 2), 5U);
    EXPECT_EQ(std::string(path), std::string("ab") + separator + "cd");
    EXPECT_EQ(_korFile_AppendPath(KOR_AT(ex, 0), path, sizeof path, "longer than that", 0), 15U);
    path[0] = '\0';
    _korFile_AppendPath(KOR_AT(ex, 0), path, sizeof path, "x", 0);
    EXPECT_STREQ(path, "x");
    std::string rooted = std::string(1, separator) + "x";
    EXPECT_EQ(_korFile_IsAbsolutePath(KOR_AT(ex, 0), rooted.c_str()), 1);
    for (const char* relative : {"", "x", "1:", ":"}) {
        EXPECT_EQ(_korFile_IsAbsolutePath(KOR_AT(ex, 0), relative), 0) << relative;
    }
    EXPECT_EQ(_korFile_IsAbsolutePath(KOR_AT(ex, 0), nullptr), 0);

    char temporary[300];
    uint32_t length = _korFile_GetTempPath(KOR_AT(ex, 0), temporary, sizeof temporary);
    EXPECT_EQ(length, strlen(temporary));
    EXPECT_EQ(temporary[length - 1], separator);
    EXPECT_EQ(_korFile_GetTempPath(KOR_AT(ex, 0), temporary + length + 1, length), length + 1); // the size needed
    std::vector<const char*> seen(4);
    std::vector<std::thread> threads;
    for (const char*& one : seen) {
        threads.emplace_back([&one] { one = _korFile_GetTempKorDir(); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(seen[0], std::string(temporary) + "kor");
    EXPECT_EQ(std::set<const char*>(seen.begin(), seen.end()).size(), 1U);
    EXPECT_EQ(_korFile_GetSocketDir(), seen[0]);
    EXPECT_TRUE(_korFile_IsNamedLocal());
    EXPECT_EQ(_korFile_GetSocketFmt(), std::string(seen[0]) + separator + "%s");
}

TEST_F(KorFileTest, AnyRequestMayFail)
{
    std::string name = write("file", "x");
    std::string deep = (std::filesystem::path(path("a")) / "b").string();
    std::string all = path("");
    sweepFailures(ex, [&] {
        char entry[16];
        korFile* file = _korFile_Open(KOR_AT(ex, 0), name.c_str(), 0);
        _korFile_MkDir(KOR_AT(ex, 0), deep.c_str(), 1);
        korDirHandle* walk = _korDirHandle_FirstFile(KOR_AT(ex, 0), all.c_str(), entry, sizeof entry);
        _korDirHandle_Close(KOR_AT_D(0, ex), walk);
        _korFile_Close(KOR_AT_D(0, ex), file);
    });
}

} // namespace
