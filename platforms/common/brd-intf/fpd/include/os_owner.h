/// Owners of what must be closed, and of the moment in which a thread may be cancelled.
///
/// pthread_cancel unwinds the frames of a worker thread. A destructor that closes may therefore not be a cancellation
/// point itself: the owners here hold cancellation off while they close, so that unwinding never starts inside them.
#ifndef OS_OWNER_H
#define OS_OWNER_H

#include <dirent.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

/// Holds cancellation of the calling thread off for its lifetime.
struct CancelHold {
    CancelHold() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous); }
    ~CancelHold() { pthread_setcancelstate(previous, nullptr); }
    CancelHold(const CancelHold &) = delete;
    CancelHold &operator=(const CancelHold &) = delete;

    int previous = PTHREAD_CANCEL_ENABLE;
};

struct FileClose {
    void operator()(std::FILE *file) const {
        CancelHold hold;
        std::fclose(file);
    }
};
/// Owns a stream; release() it to close by hand where the result of closing matters.
using File = std::unique_ptr<std::FILE, FileClose>;

struct DirectoryClose {
    void operator()(DIR *directory) const {
        CancelHold hold;
        closedir(directory);
    }
};
/// Owns an open directory.
using Directory = std::unique_ptr<DIR, DirectoryClose>;

struct Free {
    void operator()(void *memory) const { std::free(memory); }
};
/// Owns memory taken with malloc, calloc or realloc.
template <class T>
using Allocated = std::unique_ptr<T, Free>;

/// Owns a file descriptor; negative: none.
struct Descriptor {
    explicit Descriptor(int descriptor) : fd(descriptor) {}
    ~Descriptor() {
        if (fd < 0) return;
        CancelHold hold;
        ::close(fd);
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;

    int fd;
};

#endif
