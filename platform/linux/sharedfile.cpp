// sharedfile.cpp (Linux) - who comes first makes the content, who goes last takes the file off.
//
// Two bytes of the file carry locks that belong to the open description, so that the kernel gives them back when a
// process ends in whatever way. Byte 0, held alone, makes opening and closing a critical section. Byte 1 is shared by
// every user for as long as it is one: whoever gets it alone, inside the section, has nobody beside it. An opener that
// is alone makes the content anew, be the file new or left by a crash; a closer that is alone removes the name.

#include "platform/linux/sharedfile.h"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kor::platform {
namespace {

constexpr off_t sectionByte = 0;
constexpr off_t usersByte = 1;

// A name of the shared-memory file system; cut if it is too long, so that the system refuses it.
struct SharedName {
    char text[512] = "/";
    size_t length = 1;

    SharedName(const char* prefix, const char* name)
    {
        for (; *prefix != '\0'; prefix++) {
            append(*prefix);
        }
        for (; *name != '\0'; name++) {
            encode(static_cast<unsigned char>(*name));
        }
    }

    void encode(unsigned char character)
    {
        bool plain = character < 128 && (isalnum(character) || strchr("._-", character) != nullptr);
        if (plain) {
            append(static_cast<char>(character));
        } else {
            append('%');
            append("0123456789ABCDEF"[character >> 4]);
            append("0123456789ABCDEF"[character & 15]);
        }
    }

    void append(char character)
    {
        if (length < sizeof text - 1) {
            text[length++] = character;
            text[length] = '\0';
        }
    }
};

bool lockByte(int descriptor, off_t byte, short type, int command)
{
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = 1;
    int result;
    do {
        result = fcntl(descriptor, command, &lock);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

bool enterSection(int descriptor)
{
    return lockByte(descriptor, sectionByte, F_WRLCK, F_OFD_SETLKW);
}

bool isAlone(int descriptor)
{
    return lockByte(descriptor, usersByte, F_WRLCK, F_OFD_SETLK);
}

// Zeroed content of `size` bytes, with memory behind all of it: a page that could not be had later would end the
// process.
bool makeContent(int descriptor, uint64_t size)
{
    if (ftruncate(descriptor, 0) != 0) {
        return false;
    }
    int result;
    do {
        result = fallocate(descriptor, 0, 0, static_cast<off_t>(size));
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

// Inside the section: becomes a user and leaves the section. False if the content cannot be made.
bool join(SharedFile* file, uint64_t size)
{
    file->created = isAlone(file->descriptor);
    if (file->created && !makeContent(file->descriptor, size)) {
        return false;
    }
    struct stat status;
    if (!lockByte(file->descriptor, usersByte, F_RDLCK, F_OFD_SETLK) || fstat(file->descriptor, &status) != 0) {
        return false;
    }
    file->size = static_cast<uint64_t>(status.st_size);
    return lockByte(file->descriptor, sectionByte, F_UNLCK, F_OFD_SETLK);
}

// Inside the section: the last one takes the name away. Closing gives the locks back.
void leave(int descriptor, const SharedName& name)
{
    int before = errno;
    if (isAlone(descriptor)) {
        shm_unlink(name.text);
    }
    close(descriptor);
    errno = before;
}

enum class Entry { entered, vanished, failed };

// Opens the file and enters its section. A closer may have taken the name away while this one waited for it.
Entry enter(int* descriptor, const SharedName& name)
{
    *descriptor = shm_open(name.text, O_RDWR | O_CREAT, S_IRUSR | S_IWUSR);
    if (*descriptor < 0) {
        return Entry::failed;
    }
    struct stat status;
    if (!enterSection(*descriptor) || fstat(*descriptor, &status) != 0) {
        int error = errno;
        close(*descriptor);
        errno = error;
        return Entry::failed;
    }
    if (status.st_nlink == 0) {
        close(*descriptor);
        return Entry::vanished;
    }
    return Entry::entered;
}

} // namespace

bool openSharedFile(SharedFile* file, const char* prefix, const char* name, uint64_t size)
{
    SharedName path(prefix, name);
    Entry entry;
    do {
        entry = enter(&file->descriptor, path);
    } while (entry == Entry::vanished);
    if (entry == Entry::failed) {
        return false;
    }
    if (!join(file, size)) {
        leave(file->descriptor, path);
        return false;
    }
    return true;
}

void closeSharedFile(int descriptor, const char* prefix, const char* name)
{
    int before = errno;
    if (enterSection(descriptor)) {
        leave(descriptor, SharedName(prefix, name));
    } else {
        close(descriptor);
    }
    errno = before;
}

} // namespace kor::platform
