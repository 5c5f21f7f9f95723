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

const char separator = static_cast<char>(std::filesystem::path::preferred_separator);

class KorFileTest : public FilesTest
{
protected:
    korFile* open(const std::string& path, uint32_t flags = 0) { return _korFile_Open(ex, 0, path.c_str(), flags); }
    void close(korFile* file) { _korFile_Close(0, ex, file); }

    int32_t put(korFile* file, int64_t offset, const std::string& data)
    {
        fatal_ = 9;
        return _korFile_Write(ex, 0, file, offset, data.data(), static_cast<int32_t>(data.size()), &fatal_);
    }

    uint8_t fatal_;
};

TEST_F(KorFileTest, FlagsSayWhatIsMade)
{
    EXPECT_EQ(open(path("file")), nullptr);
    EXPECT_NE(ex->osError, 0);
    EXPECT_RAISED(9, "File cannot be found.");
    for (uint32_t flags : {KOR_FILE_MUST_BE_NEW | KOR_FILE_CREATE, KOR_FILE_CREATE | KOR_FILE_WRITE_THROUGH, 0U,
                           KOR_FILE_NO_SYNC | KOR_FILE_SHARE_DELETE}) {
        korFile* file = open(path("file"), flags);
        ASSERT_NE(file, nullptr) << flags;
        EXPECT_EQ(file->syncOnClose, (flags & KOR_FILE_NO_SYNC) == 0);
        close(file);
    }
    EXPECT_EQ(open(path("file"), KOR_FILE_MUST_BE_NEW | KOR_FILE_CREATE), nullptr);
    EXPECT_RAISED(9, "File cannot be found.");
    EXPECT_EQ(open(path("")), nullptr); // a directory
    EXPECT_RAISED(8, "File cannot be opened.");
    EXPECT_EQ(_korFile_Open(ex, 0, nullptr, 0), nullptr);
    EXPECT_RAISED(9, "File cannot be found.");
    close(nullptr);
}

TEST_F(KorFileTest, TransfersStandAtTheirOffsets)
{
    korFile* file = open(path("file"), KOR_FILE_CREATE);
    char buffer[16] = {};
    EXPECT_EQ(put(file, 5, "end"), 3);
    EXPECT_EQ(fatal_, 0);
    file->syncOnWrite = 1;
    EXPECT_EQ(_korFile_Write(ex, 0, file, 0, "start", 5, nullptr), 5);
    EXPECT_EQ(_korFile_Read(ex, 0, file, 3, buffer, sizeof buffer), 5); // a short read is no error
    EXPECT_STREQ(buffer, "rtend");
    EXPECT_EQ(_korFile_Read(ex, 0, file, 100, buffer, 1), 0);
    EXPECT_EQ(_korFile_Read(ex, 0, file, -1, buffer, 0), 0);
    constexpr int64_t far = int64_t{5} << 30;
    EXPECT_EQ(put(file, far, "x"), 1); // a file with a hole
    EXPECT_EQ(_korFile_Read(ex, 0, file, far - 1, buffer, 2), 2);
    EXPECT_EQ(buffer[1], 'x');
    _korFile_Sync(ex, 0, file);
    EXPECT_CLEAN();

    EXPECT_EQ(_korFile_Read(ex, 0, file, -1, buffer, 1), -1);
    EXPECT_RAISED(15, "Cannot read before beginning of file.");
    EXPECT_EQ(put(file, -1, ""), 0);
    EXPECT_EQ(fatal_, 0);
    EXPECT_EQ(put(file, -1, "x"), -1);
    EXPECT_EQ(fatal_, 1);
    EXPECT_EQ(put(file, 0, "x"), 1); // pending: nothing is written
    EXPECT_EQ(_korFile_Read(ex, 0, file, 0, buffer, 1), -1);
    close(file); // works all the same
    EXPECT_RAISED(15, "Cannot write before beginning of file.");
    file = open(path("file"));
    EXPECT_EQ(_korFile_Read(ex, 0, file, 0, buffer, 8), 8);
    EXPECT_STREQ(buffer, "startend");
    close(file);
}

TEST_F(KorFileTest, ThreadsWriteSideBySide)
{
#ifdef _WIN32
    GTEST_SKIP() << "a transfer is a seek and a write here; users take turns";
#endif
    korFile* file = open(path("file"), KOR_FILE_CREATE | KOR_FILE_NO_SYNC);
    auto fill = [&](int part) {
        KOR_EX_LOCAL(own);
        const char byte = static_cast<char>('a' + part);
        for (int i = part; i < 2000; i += 2) {
            _korFile_Write(&own, 0, file, i, &byte, 1, nullptr);
        }
        EXPECT_TRUE(clean(&own));
    };
    std::thread other(fill, 1);
    fill(0);
    other.join();
    close(file);
    std::string expected;
    for (int i = 0; i < 1000; i++) {
        expected += "ab";
    }
    EXPECT_EQ(content("file"), expected);
}

#ifndef _WIN32
TEST_F(KorFileTest, AWriteSaysIfItMaySucceedLater)
{
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    auto handler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit before;
    getrlimit(RLIMIT_FSIZE, &before);
    struct {
        std::string path;
        rlim_t limit;
        int32_t osError;
        bool fatal;
        const char* failure;
    } cases[] = {{"/dev/full", before.rlim_cur, ENOSPC, false, "File write failed."},
                 {write("file", ""), 0, EFBIG, true, "File write failed."},
                 {path("pipe"), before.rlim_cur, ESPIPE, false, "File seek failed."}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        korFile* file = open(c.path, KOR_FILE_NO_SYNC);
        ASSERT_CLEAN();
        rlimit limit = {c.limit, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
        EXPECT_EQ(put(file, 0, "x"), -1);
        setrlimit(RLIMIT_FSIZE, &before);
        EXPECT_EQ(fatal_, c.fatal);
        EXPECT_EQ(ex->osError, c.osError);
        EXPECT_RAISED(15, c.failure);
        close(file);
    }
    std::signal(SIGXFSZ, handler);
}

TEST_F(KorFileTest, AReadOnlyDiskDeniesEveryChange)
{
    bool mounted = onSmallDisk(path(""), [this] {
        std::string old = write("old", "content");
        ASSERT_TRUE(makeReadOnly(path("")));
        for (const std::string& one : {old, path("new")}) {
            EXPECT_EQ(open(one, KOR_FILE_CREATE), nullptr);
            EXPECT_EQ(ex->osError, EROFS);
            EXPECT_RAISED(KOR_ERROR_NOT_PERMITTED, "File cannot be opened.");
        }
        _korFile_Rename(ex, 0, old.c_str(), path("new").c_str());
        EXPECT_RAISED(15, "File cannot be renamed.");
        _korFile_DeletePath(ex, 0, old.c_str());
        EXPECT_RAISED(15, "File cannot be deleted.");
        EXPECT_EQ(content("old"), "content");
    });
    if (!mounted) {
        GTEST_SKIP() << "this user may not mount";
    }
}
#endif

TEST_F(KorFileTest, FilesAreRenamedAndDeleted)
{
    const std::string one = write("one", "1"), two = write("two", "2"), three = path("three");
    _korFile_Rename(ex, 0, one.c_str(), two.c_str()); // never over another file
    EXPECT_NE(ex->osError, 0);
    EXPECT_RAISED(15, "File cannot be renamed.");
    EXPECT_EQ(content("two"), "2");
    _korFile_Rename(ex, 0, one.c_str(), three.c_str());
    EXPECT_EQ(content("three"), "1");
    _korFile_DeletePath(ex, 0, two.c_str());
    EXPECT_CLEAN();
    EXPECT_EQ(_korFile_Exists(ex, 0, three.c_str()), 1);
    for (const std::string& none : {one, two}) {
        EXPECT_EQ(_korFile_Exists(ex, 0, none.c_str()), 0);
    }
    for (const std::string& undeletable : {two, path("")}) {
        _korFile_DeletePath(ex, 0, undeletable.c_str());
        EXPECT_RAISED(15, "File cannot be deleted.");
    }
    _korFile_RmDir(ex, 0, path("").c_str()); // not empty
    EXPECT_RAISED(15, "Cannot remove directory");
}

TEST_F(KorFileTest, DirectoriesAreMadeAWholePathAtATime)
{
#ifndef _WIN32
    mode_t mask = umask(027);
#endif
    std::string deep = path("a") + separator + separator + "b" + separator + "c";
    std::string file = write("file", "");
    struct {
        std::string path;
        uint8_t whole;
        const char* failure;
    } cases[] = {
        {deep, 0, "Cannot create directory"},
        {deep, 1, nullptr},
        {deep, 1, nullptr}, // it is there
        {path("d") + separator, 1, nullptr},
        {file, 0, "File exists but is not a directory"},
        {file + separator + "x", 1, "File exists but is not a directory"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        _korFile_MkDir(ex, 0, c.path.c_str(), c.whole);
        if (c.failure != nullptr) {
            EXPECT_RAISED(15, c.failure);
        }
        EXPECT_CLEAN();
        EXPECT_EQ(std::filesystem::is_directory(c.path), c.failure == nullptr);
    }
#ifndef _WIN32
    struct stat status;
    EXPECT_EQ(stat(deep.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0777U);
    EXPECT_EQ(umask(mask), 027U);
#endif
    _korFile_RmDir(ex, 0, deep.c_str());
    EXPECT_FALSE(std::filesystem::exists(deep));
}

// The file mask is one for all threads.
TEST_F(KorFileTest, ThreadsThatMakeDirectoriesLeaveTheMask)
{
#ifdef _WIN32
    auto setMask = [](int mask) { return _umask(mask); };
    constexpr int mask = _S_IWRITE;
#else
    auto setMask = [](unsigned mask) { return umask(mask); };
    constexpr unsigned mask = 027;
#endif
    auto before = setMask(mask);
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([made = path(std::to_string(i))] {
            KOR_EX_LOCAL(own);
            for (int round = 0; round < 200; round++) {
                _korFile_MkDir(&own, 0, made.c_str(), 0);
                _korFile_RmDir(&own, 0, made.c_str());
            }
            EXPECT_EQ(own.code, 0);
        });
    }
    threads.clear();
    EXPECT_EQ(setMask(before), mask);
}

TEST_F(KorFileTest, AWalkYieldsPlainFiles)
{
    char name[64];
    std::filesystem::create_directory(path("directory"));
    EXPECT_EQ(_korDirHandle_FirstFile(ex, 0, path("").c_str(), name, sizeof name), nullptr);
    EXPECT_CLEAN();
    EXPECT_EQ(_korDirHandle_FirstFile(ex, 0, path("none").c_str(), name, sizeof name), nullptr);
    EXPECT_RAISED(15, "Directory cannot be opened.");
    std::multiset<std::string> expected, found;
    for (int i = 0; i < 50; i++) {
        write(*expected.insert("file" + std::to_string(i)), "");
    }
#ifndef _WIN32
    std::filesystem::create_symlink(path("file1"), path("link"));
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
#endif
    korDirHandle* walk = _korDirHandle_FirstFile(ex, 0, path("").c_str(), name, sizeof name);
    ASSERT_NE(walk, nullptr);
    do {
        found.insert(name);
    } while (_korDirHandle_NextFile(ex, 0, walk, name, sizeof name) != 0);
    EXPECT_EQ(found, expected);
    _korDirHandle_Close(0, ex, walk);
    walk = _korDirHandle_FirstFile(ex, 0, path("").c_str(), name, 4);
    EXPECT_STREQ(name, "fil");
    _korDirHandle_Close(0, ex, walk);
}

TEST_F(KorFileTest, PathsAndTheTemporaryPlace)
{
    char text[16] = "ab";
    EXPECT_EQ(_korFile_AppendPath(ex, 0, text, sizeof text, "cde", 2), 5U);
    EXPECT_EQ(std::string(text), std::string("ab") + separator + "cd");
    EXPECT_EQ(_korFile_AppendPath(ex, 0, text, sizeof text, "longer than that", 0), 15U);
    text[0] = '\0';
    _korFile_AppendPath(ex, 0, text, sizeof text, "x", 0);
    EXPECT_STREQ(text, "x");
    EXPECT_EQ(_korFile_IsAbsolutePath(ex, 0, (std::string(1, separator) + "x").c_str()), 1);
    for (const char* relative : {"", "x", "1:", ":", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(_korFile_IsAbsolutePath(ex, 0, relative), 0) << relative;
    }

    char temporary[300];
    uint32_t length = _korFile_GetTempPath(ex, 0, temporary, sizeof temporary);
    EXPECT_EQ(length, strlen(temporary));
    EXPECT_EQ(temporary[length - 1], separator);
    EXPECT_EQ(_korFile_GetTempPath(ex, 0, temporary + length + 1, length), length + 1); // the size needed
    std::vector<const char*> seen(4);
    std::vector<std::thread> threads;
    for (const char*& one : seen) {
        threads.emplace_back([&one] { one = _korFile_GetTempKorDir(); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(seen[0], std::string(temporary) + "kor");
    EXPECT_EQ(seen, std::vector(4, seen[0])) << "one text for all";
    EXPECT_EQ(_korFile_GetSocketDir(), seen[0]);
    EXPECT_TRUE(_korFile_IsNamedLocal());
    EXPECT_EQ(_korFile_GetSocketFmt(), std::string(seen[0]) + separator + "%s");
}

TEST_F(KorFileTest, AnyRequestMayFail)
{
    std::string file = write("file", "user\npassword"), all = path(""), deep = path("a") + separator + "b";
    sweepFailures(ex, [&] {
        char entry[16];
        korFile* opened = open(file);
        _korFile_MkDir(ex, 0, deep.c_str(), 1);
        korDirHandle* walk = _korDirHandle_FirstFile(ex, 0, all.c_str(), entry, sizeof entry);
        _korDirHandle_Close(0, ex, walk);
        close(opened);
    });
}

} // namespace
