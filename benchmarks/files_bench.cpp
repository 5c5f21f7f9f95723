// files_bench.cpp - positioned transfers within a file that is in the system's cache, by their size in bytes: korFile
// beside plain pread and pwrite. What differs is the checks and the loop around the system's call.

#include "korutil/korFile.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr int64_t fileSize = 16 << 20;

korEx* const sharedEx = korEx_Create();

// A file that goes with the object.
class ScratchFile
{
public:
    ScratchFile()
    {
        path_.resize(KOR_FILE_TEMP_NAME_SIZE);
        _korFile_MakeTempFileName(KOR_AT(sharedEx, 0), path_.data());
        path_ = "/tmp/" + std::string(path_.c_str());
        file_ = _korFile_Open(KOR_AT(sharedEx, 0), path_.c_str(), KOR_FILE_CREATE | KOR_FILE_NO_SYNC);
        descriptor_ = open(path_.c_str(), O_RDWR | O_CLOEXEC);
        std::vector<char> content(fileSize, 'x');
        uint8_t fatal = 0;
        _korFile_Write(KOR_AT(sharedEx, 0), file_, 0, content.data(), static_cast<int32_t>(fileSize), &fatal);
    }
    ~ScratchFile()
    {
        close(descriptor_);
        _korFile_Close(KOR_AT_D(0, sharedEx), file_);
        unlink(path_.c_str());
    }
    ScratchFile(const ScratchFile&) = delete;
    ScratchFile& operator=(const ScratchFile&) = delete;
    korFile* file() const { return file_; }
    int descriptor() const { return descriptor_; }

private:
    std::string path_;
    korFile* file_ = nullptr;
    int descriptor_ = -1;
};

// Each a transfer of `size` bytes; gives how many came about.
int64_t readOurs(const ScratchFile& scratch, int64_t offset, std::vector<char>& buffer)
{
    return _korFile_Read(KOR_AT(sharedEx, 0), scratch.file(), offset, buffer.data(),
                         static_cast<int32_t>(buffer.size()));
}

int64_t writeOurs(const ScratchFile& scratch, int64_t offset, std::vector<char>& buffer)
{
    uint8_t fatal = 0;
    return _korFile_Write(KOR_AT(sharedEx, 0), scratch.file(), offset, buffer.data(),
                          static_cast<int32_t>(buffer.size()), &fatal);
}

int64_t readPlain(const ScratchFile& scratch, int64_t offset, std::vector<char>& buffer)
{
    return pread(scratch.descriptor(), buffer.data(), buffer.size(), offset);
}

int64_t writePlain(const ScratchFile& scratch, int64_t offset, std::vector<char>& buffer)
{
    return pwrite(scratch.descriptor(), buffer.data(), buffer.size(), offset);
}

using Transfer = int64_t (*)(const ScratchFile&, int64_t, std::vector<char>&);

// Offsets jump through the file, so that nothing gains by the transfer before.
template <Transfer transfer>
void run(benchmark::State& state)
{
    ScratchFile scratch;
    std::vector<char> buffer(static_cast<size_t>(state.range(0)), 'y');
    int64_t slots = fileSize / state.range(0);
    int64_t slot = 0;
    for (auto step : state) {
        slot = (slot + 7919) % slots;
        if (transfer(scratch, slot * state.range(0), buffer) != state.range(0)) {
            state.SkipWithError("a transfer failed");
        }
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void sizes(benchmark::internal::Benchmark* bench)
{
    for (int64_t size : {64, 4096, 65536}) {
        bench->Arg(size);
    }
}

BENCHMARK(run<readOurs>)->Name("BM_Files_read/korFile")->Apply(sizes);
BENCHMARK(run<readPlain>)->Name("BM_Files_read/pread")->Apply(sizes);
BENCHMARK(run<writeOurs>)->Name("BM_Files_write/korFile")->Apply(sizes);
BENCHMARK(run<writePlain>)->Name("BM_Files_write/pwrite")->Apply(sizes);

} // namespace

BENCHMARK_MAIN();
