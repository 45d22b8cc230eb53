// Frame I/O and value encoding shared by the emulated client library and confd-emu.
#include "wire.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

namespace confd_wire {

namespace {

constexpr int kMaxListDepth = 8;
// Time a frame that has begun to arrive gets to complete (see recv_frame).
constexpr int64_t kFrameGraceMs = 5000;

int64_t now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Reads exactly n bytes. Returns 1, 0 on EOF before the first byte when
// eof_ok, -1 on error/time-out/EOF in the middle.
int read_full(int fd, char *buf, size_t n, int64_t deadline, bool eof_ok)
{
    size_t got = 0;
    while (got < n) {
        if (deadline >= 0) {
            int64_t left = deadline - now_ms();
            if (left <= 0) {
                errno = ETIMEDOUT;
                return -1;
            }
            struct pollfd pfd = {fd, POLLIN, 0};
            int r = poll(&pfd, 1, static_cast<int>(left));
            if (r < 0 && errno == EINTR)
                continue;
            if (r < 0)
                return -1;
            if (r == 0) {
                errno = ETIMEDOUT;
                return -1;
            }
        }
        ssize_t r = recv(fd, buf + got, n - got, 0);
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0)
            return -1;
        if (r == 0) {
            if (got == 0 && eof_ok)
                return 0;
            errno = ECONNRESET;
            return -1;
        }
        got += static_cast<size_t>(r);
    }
    return 1;
}

} // namespace

Writer &Writer::u8(uint8_t v)
{
    buf_.push_back(static_cast<char>(v));
    return *this;
}

Writer &Writer::u16(uint16_t v)
{
    buf_.push_back(static_cast<char>(v >> 8));
    buf_.push_back(static_cast<char>(v));
    return *this;
}

Writer &Writer::u32(uint32_t v)
{
    for (int s = 24; s >= 0; s -= 8)
        buf_.push_back(static_cast<char>(v >> s));
    return *this;
}

Writer &Writer::u64(uint64_t v)
{
    for (int s = 56; s >= 0; s -= 8)
        buf_.push_back(static_cast<char>(v >> s));
    return *this;
}

Writer &Writer::str(std::string_view s)
{
    u32(static_cast<uint32_t>(s.size()));
    buf_.append(s.data(), s.size());
    return *this;
}

Writer &Writer::value(const Value &v)
{
    u8(v.type);
    switch (v.type) {
    case T_INT8: case T_INT16: case T_INT32: case T_INT64: case T_ENUM_VALUE:
        i64(v.i);
        break;
    case T_UINT8: case T_UINT16: case T_UINT32: case T_UINT64:
    case T_BIT32: case T_BIT64: case T_BOOL:
        u64(v.u);
        break;
    case T_DOUBLE: {
        uint64_t bits;
        std::memcpy(&bits, &v.d, sizeof bits);
        u64(bits);
        break;
    }
    case T_XMLTAG: case T_XMLBEGIN: case T_XMLEND: case T_XMLBEGINDEL: case T_IDENTITYREF:
        u32(v.a);
        u32(v.b);
        break;
    case T_STR:
        u8(v.null_str ? 1 : 0);
        str(v.bytes);
        break;
    case T_BUF: case T_BINARY: case T_HEXSTR: case T_IPV4: case T_IPV6:
    case T_BITBIG: case T_DQUAD: case T_IPV4PREFIX: case T_IPV6PREFIX:
    case T_IPV4_AND_PLEN: case T_IPV6_AND_PLEN:
        str(v.bytes);
        break;
    case T_DECIMAL64:
        i64(v.i);
        u8(static_cast<uint8_t>(v.u));
        break;
    case T_OID:
        u32(static_cast<uint32_t>(v.oid.size()));
        for (uint32_t x : v.oid)
            u32(x);
        break;
    case T_LIST:
        u32(static_cast<uint32_t>(v.list.size()));
        for (const Value &e : v.list)
            value(e);
        break;
    default: // NOEXISTS, DEFAULT and types without payload
        break;
    }
    return *this;
}

Writer &Writer::keypath(const KeyPath &kp)
{
    u32(static_cast<uint32_t>(kp.size()));
    for (const auto &row : kp) {
        u32(static_cast<uint32_t>(row.size()));
        for (const Value &v : row)
            value(v);
    }
    return *this;
}

bool Reader::need(size_t n)
{
    if (!ok_ || static_cast<size_t>(end_ - p_) < n) {
        ok_ = false;
        return false;
    }
    return true;
}

bool Reader::need_items(uint32_t count, size_t size)
{
    if (!ok_ || count > static_cast<size_t>(end_ - p_) / size) {
        ok_ = false;
        return false;
    }
    return true;
}

Op Reader::op() { return static_cast<Op>(u8()); }

uint8_t Reader::u8()
{
    if (!need(1))
        return 0;
    return static_cast<uint8_t>(*p_++);
}

uint16_t Reader::u16()
{
    if (!need(2))
        return 0;
    uint16_t v = static_cast<uint16_t>((uint8_t(p_[0]) << 8) | uint8_t(p_[1]));
    p_ += 2;
    return v;
}

uint32_t Reader::u32()
{
    if (!need(4))
        return 0;
    uint32_t v = 0;
    for (int k = 0; k < 4; k++)
        v = (v << 8) | uint8_t(*p_++);
    return v;
}

uint64_t Reader::u64()
{
    if (!need(8))
        return 0;
    uint64_t v = 0;
    for (int k = 0; k < 8; k++)
        v = (v << 8) | uint8_t(*p_++);
    return v;
}

std::string Reader::str()
{
    uint32_t n = u32();
    if (!need(n))
        return {};
    std::string s(p_, n);
    p_ += n;
    return s;
}

Value Reader::value()
{
    Value v;
    v.type = u8();
    switch (v.type) {
    case T_INT8: case T_INT16: case T_INT32: case T_INT64: case T_ENUM_VALUE:
        v.i = i64();
        break;
    case T_UINT8: case T_UINT16: case T_UINT32: case T_UINT64:
    case T_BIT32: case T_BIT64: case T_BOOL:
        v.u = u64();
        break;
    case T_DOUBLE: {
        uint64_t bits = u64();
        std::memcpy(&v.d, &bits, sizeof bits);
        break;
    }
    case T_XMLTAG: case T_XMLBEGIN: case T_XMLEND: case T_XMLBEGINDEL: case T_IDENTITYREF:
        v.a = u32();
        v.b = u32();
        break;
    case T_STR:
        v.null_str = u8() != 0;
        v.bytes = str();
        break;
    case T_BUF: case T_BINARY: case T_HEXSTR: case T_IPV4: case T_IPV6:
    case T_BITBIG: case T_DQUAD: case T_IPV4PREFIX: case T_IPV6PREFIX:
    case T_IPV4_AND_PLEN: case T_IPV6_AND_PLEN:
        v.bytes = str();
        break;
    case T_DECIMAL64:
        v.i = i64();
        v.u = u8();
        break;
    case T_OID: {
        uint32_t n = u32();
        if (n > 128 || !need_items(n, 4)) {
            ok_ = false;
            break;
        }
        v.oid.resize(n);
        for (uint32_t k = 0; k < n; k++)
            v.oid[k] = u32();
        break;
    }
    case T_LIST: {
        uint32_t n = u32();
        // Each element takes at least one byte: a count beyond the rest of
        // the payload is a broken frame, not a reason to allocate.
        if (depth_ >= kMaxListDepth || !need(n)) {
            ok_ = false;
            break;
        }
        depth_++;
        v.list.reserve(n);
        for (uint32_t k = 0; k < n && ok_; k++)
            v.list.push_back(value());
        depth_--;
        break;
    }
    default:
        break;
    }
    return v;
}

KeyPath Reader::keypath()
{
    KeyPath kp;
    uint32_t rows = u32();
    // Each row starts with its 4-byte count.
    if (!need_items(rows, 4))
        return kp;
    kp.resize(rows);
    for (uint32_t r = 0; r < rows && ok_; r++) {
        uint32_t n = u32();
        if (!need(n))
            break;
        kp[r].reserve(n);
        for (uint32_t k = 0; k < n && ok_; k++)
            kp[r].push_back(value());
    }
    return kp;
}

bool append_frame(std::string &out, const std::string &payload)
{
    if (payload.size() > kMaxFrame) {
        errno = EMSGSIZE;
        return false;
    }
    uint32_t n = static_cast<uint32_t>(payload.size());
    for (int s = 24; s >= 0; s -= 8)
        out.push_back(static_cast<char>(n >> s));
    out += payload;
    return true;
}

bool send_bytes(int fd, const std::string &bytes)
{
    // The loop resumes after a partial send (socket buffer full, or a
    // signal); it is the caller's per-socket lock, not this loop, that keeps
    // another thread's frame from landing in the gap.
    size_t off = 0;
    while (off < bytes.size()) {
        ssize_t r = send(fd, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0)
            return false;
        off += static_cast<size_t>(r);
    }
    return true;
}

bool send_frame(int fd, const std::string &payload)
{
    std::string frame;
    frame.reserve(payload.size() + 4);
    return append_frame(frame, payload) && send_bytes(fd, frame);
}

int recv_frame(int fd, std::string &payload, int timeout_ms)
{
    int64_t deadline = timeout_ms < 0 ? -1 : now_ms() + timeout_ms;
    char hdr[4];
    // The time-out bounds the wait for a frame to begin. Once its first byte
    // is in, the rest gets a grace period of its own: giving up half-way
    // (the deadline may pass between the header and the body) would leave
    // the stream out of step for every later frame.
    int r = read_full(fd, hdr, 1, deadline, true);
    if (r <= 0)
        return r;
    // Even with no time-out, a frame that has begun must complete within the grace period: a
    // peer that sends half a frame and falls silent is an error, not a reason to wait for ever.
    deadline = std::max(deadline, now_ms() + kFrameGraceMs);
    r = read_full(fd, hdr + 1, 3, deadline, false);
    if (r <= 0)
        return -1;
    uint32_t n = (uint32_t(uint8_t(hdr[0])) << 24) | (uint32_t(uint8_t(hdr[1])) << 16) |
                 (uint32_t(uint8_t(hdr[2])) << 8) | uint32_t(uint8_t(hdr[3]));
    if (n > kMaxFrame) {
        errno = EMSGSIZE;
        return -1;
    }
    // Grow with what has arrived (doubling from 4 KiB), so a peer that
    // announces a large frame and sends little costs little memory.
    payload.clear();
    while (payload.size() < n) {
        size_t have = payload.size();
        size_t chunk = std::min<size_t>(n - have, std::max<size_t>(have, 4096));
        payload.resize(have + chunk);
        if (read_full(fd, &payload[have], chunk, deadline, false) != 1)
            return -1;
    }
    return 1;
}

size_t FrameReader::frame_size() const
{
    if (tail_ - head_ < 4) return 0;
    const unsigned char *h = reinterpret_cast<const unsigned char *>(buf_.data() + head_);
    uint32_t n = uint32_t(h[0]) << 24 | uint32_t(h[1]) << 16 | uint32_t(h[2]) << 8 | h[3];
    return 4 + size_t(n);
}

bool FrameReader::has_frame() const
{
    size_t need = frame_size();
    return need != 0 && (need - 4 > kMaxFrame || tail_ - head_ >= need);
}

int FrameReader::next(int fd, std::string &payload, int timeout_ms)
{
    int64_t deadline = timeout_ms < 0 ? -1 : now_ms() + timeout_ms;
    bool begun = false;
    for (;;) {
        size_t need = frame_size();
        if (need != 0 && need - 4 > kMaxFrame) {
            errno = EMSGSIZE;
            return -1;
        }
        if (need != 0 && tail_ - head_ >= need) {
            payload.assign(buf_.data() + head_ + 4, need - 4);
            head_ += need;
            if (head_ == tail_) {
                head_ = tail_ = 0;
                // A large frame's room goes back once it is read.
                if (buf_.size() > (1u << 20)) std::vector<char>().swap(buf_);
            }
            return 1;
        }
        // Part of a frame is in: the rest gets the grace period, as in recv_frame.
        if (tail_ > head_ && !begun) {
            begun = true;
            deadline = std::max(deadline, now_ms() + kFrameGraceMs);
        }
        if (head_ > 0) { // keep the unread bytes at the front
            std::memmove(buf_.data(), buf_.data() + head_, tail_ - head_);
            tail_ -= head_;
            head_ = 0;
        }
        // Room for what has arrived: 4 KiB (a request or a reply of the daemon's), or up to a
        // larger frame's end, doubling with the bytes received so that an announced length
        // costs memory only as it arrives and an idle connection holds little.
        size_t want = std::max<size_t>(4096, std::min(need, 2 * std::max<size_t>(tail_, 4096)));
        if (buf_.size() < want) buf_.resize(want);
        if (deadline >= 0) {
            int64_t left = deadline - now_ms();
            struct pollfd pfd = {fd, POLLIN, 0};
            int r = left > 0 ? poll(&pfd, 1, static_cast<int>(left)) : 0;
            if (r < 0 && errno == EINTR) continue;
            if (r < 0) return -1;
            if (r == 0) {
                errno = ETIMEDOUT;
                return -1;
            }
        }
        ssize_t r = recv(fd, buf_.data() + tail_, buf_.size() - tail_, 0);
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) return -1;
        if (r == 0) {
            if (tail_ == 0) return 0;
            errno = ECONNRESET;
            return -1;
        }
        tail_ += static_cast<size_t>(r);
    }
}

} // namespace confd_wire
