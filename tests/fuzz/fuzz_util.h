// What the fuzz targets share: the input as a stream, as a file below a scratch tree, and as the
// peer's side of a connected socket.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace fuzz
{

// Closes the stream, then lets go of the bytes it reads.
struct stream_closer {
    std::shared_ptr<std::string> text;
    void operator()(FILE *f) const { fclose(f); }
};
using stream_ptr = std::unique_ptr<FILE, stream_closer>;

// The input as a read-only stream (a copy of the bytes); an empty input reads as one empty line,
// as fmemopen refuses an empty buffer.
inline stream_ptr stream(const uint8_t *data, size_t size)
{
    auto text = std::make_shared<std::string>(reinterpret_cast<const char *>(data), size);
    if (text->empty()) *text = "\n";
    FILE *f = fmemopen(&(*text)[0], text->size(), "r");
    if (f == nullptr) abort();
    return stream_ptr(f, stream_closer{text});
}

// A scratch directory for the whole run, removed at exit; the readers of fixed paths are pointed
// at it through their seams. It lives in memory where it can: rewriting a file on a disk file
// system starts a write-back each time, which slows a run down tenfold.
inline const std::string &scratch()
{
    static const std::string root = [] {
        std::string dir;
        for (const char *base : {"/dev/shm", "/tmp"}) {
            std::string name = std::string(base) + "/leisobek-fuzz-XXXXXX";
            if (mkdtemp(&name[0]) != nullptr) {
                dir = name;
                break;
            }
        }
        if (dir.empty()) abort();
        static std::string rm = "rm -rf '" + dir + "'";
        atexit([] { (void)!system(rm.c_str()); });
        return dir;
    }();
    return root;
}

// Writes the input to path below the scratch tree (its directories must exist).
inline void write(const std::string &path, const uint8_t *data, size_t size)
{
    FILE *f = fopen((scratch() + path).c_str(), "w");
    if (f == nullptr) abort();
    if (size) fwrite(data, 1, size, f);
    fclose(f);
}

// Makes the directories of path below the scratch tree.
inline void make_dirs(const std::string &path)
{
    std::string mk = "mkdir -p '" + scratch() + path + "'";
    if (system(mk.c_str()) != 0) abort();
}

// A connected socket pair whose far end has sent the input (one record on SOCK_SEQPACKET) and then
// end-of-file: what the near end reads is the input; what it sends is dropped with the pair.
struct socket_feed {
    int near = -1, far = -1;
    socket_feed(const uint8_t *data, size_t size, int type = SOCK_STREAM)
    {
        int fds[2];
        if (socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, fds) != 0) abort();
        near = fds[0], far = fds[1];
        // Room for the input and for whatever the near end answers to it.
        int room = 4 << 20;
        setsockopt(far, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
        setsockopt(near, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
        for (size_t off = 0; off < size;) {
            ssize_t n = ::write(far, data + off, size - off);
            if (n <= 0) abort();
            off += static_cast<size_t>(n);
        }
        shutdown(far, SHUT_WR);
    }
    ~socket_feed()
    {
        if (near >= 0) close(near);
        close(far);
    }
    socket_feed(const socket_feed &) = delete;
    socket_feed &operator=(const socket_feed &) = delete;
};

} // namespace fuzz
