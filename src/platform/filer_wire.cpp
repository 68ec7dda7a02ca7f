#include "platform/filer_wire.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cstring>

namespace platform {
namespace {

using Clock = std::chrono::steady_clock;

// Field kinds of each message, in order: 'W' a word, 'B' bytes. The passed
// descriptor of the notify-port request is not a field.
const char* shape_of(int32_t id) {
  switch (id) {
    case kFilerGetServerAttribute:
      return "WW";
    case kFilerSetServerAttribute:
      return "BWW";
    case kFilerSendServerCommand:
      return "BWWW";
    case kFilerCreateObjectIterator:
      return "W";
    case kFilerGetIterAttribute:
      return "WWW";
    case kFilerAdvanceIterator:
      return "W";
    case kFilerDestroyIterator:
      return "W";
    case kFilerRegisterNotifyPort:
      return "BWW";
    case kFilerGetServerAttribute + kFilerReplyOffset:
      return "WB";
    case kFilerSendServerCommand + kFilerReplyOffset:
      return "WB";
    case kFilerGetIterAttribute + kFilerReplyOffset:
      return "WB";
    case kFilerCreateObjectIterator + kFilerReplyOffset:
      return "WW";
    case kFilerSetServerAttribute + kFilerReplyOffset:
    case kFilerAdvanceIterator + kFilerReplyOffset:
    case kFilerDestroyIterator + kFilerReplyOffset:
    case kFilerRegisterNotifyPort + kFilerReplyOffset:
      return "W";
    default:
      return nullptr;
  }
}

bool carries_descriptor(int32_t id) { return id == kFilerRegisterNotifyPort; }

void put_u32(std::string* out, uint32_t value) {
  char bytes[4] = {static_cast<char>(value & 0xff), static_cast<char>((value >> 8) & 0xff),
                   static_cast<char>((value >> 16) & 0xff), static_cast<char>((value >> 24) & 0xff)};
  out->append(bytes, 4);
}

uint32_t get_u32(const char* p) {
  auto b = reinterpret_cast<const unsigned char*>(p);
  return uint32_t{b[0]} | uint32_t{b[1]} << 8 | uint32_t{b[2]} << 16 | uint32_t{b[3]} << 24;
}

struct Header {
  int32_t id;
  uint32_t body_length;
  uint32_t descriptors;
};

// Checks everything the header alone can tell, so that a receiver knows
// whether to read the body before it allocates room for it.
FilerWireStatus parse_header(const char* p, Header* header) {
  if (get_u32(p) != kFilerMagic) return FilerWireStatus::kMalformed;
  header->id = static_cast<int32_t>(get_u32(p + 4));
  header->body_length = get_u32(p + 8);
  header->descriptors = get_u32(p + 12);
  if (std::memcmp(p + 16, kFilerNdr, sizeof kFilerNdr) != 0) return FilerWireStatus::kMalformed;
  if (!shape_of(header->id)) return FilerWireStatus::kMalformed;
  if (header->descriptors != (carries_descriptor(header->id) ? 1u : 0u)) return FilerWireStatus::kMalformed;
  if (header->body_length > kMaxFilerBody) return FilerWireStatus::kTooLarge;
  return FilerWireStatus::kOk;
}

FilerWireStatus parse_body(int32_t id, std::string_view body, FilerMessage* message) {
  message->id = id;
  message->fields.clear();
  for (const char* kind = shape_of(id); *kind; ++kind) {
    if (body.size() < 4) return FilerWireStatus::kMalformed;
    uint32_t word = get_u32(body.data());
    body.remove_prefix(4);
    if (*kind == 'W') {
      message->fields.emplace_back(word);
      continue;
    }
    if (word > body.size()) return FilerWireStatus::kMalformed;
    message->fields.emplace_back(std::string(body.substr(0, word)));
    body.remove_prefix(word);
  }
  return body.empty() ? FilerWireStatus::kOk : FilerWireStatus::kMalformed;
}

// Milliseconds left before deadline, rounded up so that a wait never ends
// just short of it; 0 once it has passed.
int remaining_ms(Clock::time_point deadline) {
  auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  if (left <= 0) return 0;
  return left > 0x7fffffff ? 0x7fffffff : static_cast<int>(left);
}

// Waits until fd is ready for events. kOk, kTimedOut or kIoError.
FilerWireStatus wait_for(int fd, short events, Clock::time_point deadline) {
  for (;;) {
    int ms = remaining_ms(deadline);
    if (ms == 0) return FilerWireStatus::kTimedOut;
    pollfd p{fd, events, 0};
    int n = ::poll(&p, 1, ms);
    if (n > 0) return FilerWireStatus::kOk;  // errors and hang-ups show in the next call
    if (n == 0) continue;                    // the loop decides whether time is up
    if (errno != EINTR) return FilerWireStatus::kIoError;
  }
}

constexpr size_t kMaxDescriptorsSeen = 8;

// Reads exactly size bytes into out. The first descriptor that comes along
// lands in *descriptor (if still empty); any further ones are closed, as
// are those the kernel had to drop for want of room.
FilerWireStatus read_exactly(int fd, char* out, size_t size, Clock::time_point deadline, UniqueFd* descriptor) {
  size_t done = 0;
  while (done < size) {
    FilerWireStatus waited = wait_for(fd, POLLIN, deadline);
    if (waited != FilerWireStatus::kOk) return waited;
    iovec iov{out + done, size - done};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxDescriptorsSeen)];
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    ssize_t n = ::recvmsg(fd, &msg, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) continue;
      if (errno == ECONNRESET) return FilerWireStatus::kClosed;
      return FilerWireStatus::kIoError;
    }
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
      if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
      size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
      for (size_t i = 0; i < count; ++i) {
        int passed;
        std::memcpy(&passed, CMSG_DATA(c) + i * sizeof(int), sizeof passed);
        UniqueFd owned(passed);
        if (!descriptor->valid()) *descriptor = std::move(owned);
      }
    }
    if (n == 0) return FilerWireStatus::kClosed;
    done += static_cast<size_t>(n);
  }
  return FilerWireStatus::kOk;
}

}  // namespace

bool filer_shape_valid(const FilerMessage& message) {
  const char* kind = shape_of(message.id);
  if (!kind || std::strlen(kind) != message.fields.size()) return false;
  for (const FilerField& field : message.fields) {
    bool is_word = std::holds_alternative<uint32_t>(field);
    if (is_word != (*kind++ == 'W')) return false;
  }
  return true;
}

std::string encode_filer_frame(const FilerMessage& message) {
  std::string body;
  for (const FilerField& field : message.fields) {
    if (const uint32_t* word = std::get_if<uint32_t>(&field)) {
      put_u32(&body, *word);
    } else {
      const std::string& bytes = std::get<std::string>(field);
      put_u32(&body, static_cast<uint32_t>(bytes.size()));
      body += bytes;
    }
  }
  std::string frame;
  frame.reserve(kFilerHeaderBytes + body.size());
  put_u32(&frame, kFilerMagic);
  put_u32(&frame, static_cast<uint32_t>(message.id));
  put_u32(&frame, static_cast<uint32_t>(body.size()));
  put_u32(&frame, carries_descriptor(message.id) ? 1 : 0);
  frame.append(reinterpret_cast<const char*>(kFilerNdr), sizeof kFilerNdr);
  frame += body;
  return frame;
}

FilerWireStatus decode_filer_frame(std::string_view frame, FilerMessage* message) {
  if (frame.size() < kFilerHeaderBytes) return FilerWireStatus::kMalformed;
  Header header;
  FilerWireStatus status = parse_header(frame.data(), &header);
  if (status != FilerWireStatus::kOk) return status;
  if (header.body_length != frame.size() - kFilerHeaderBytes) return FilerWireStatus::kMalformed;
  message->descriptor.reset();
  return parse_body(header.id, frame.substr(kFilerHeaderBytes), message);
}

FilerWireStatus send_filer_message(int fd, const FilerMessage& message, std::chrono::milliseconds limit) {
  if (!filer_shape_valid(message)) return FilerWireStatus::kMalformed;
  bool with_descriptor = carries_descriptor(message.id);
  if (with_descriptor && !message.descriptor.valid()) return FilerWireStatus::kMalformed;
  std::string frame = encode_filer_frame(message);
  if (frame.size() - kFilerHeaderBytes > kMaxFilerBody) return FilerWireStatus::kTooLarge;

  Clock::time_point deadline = Clock::now() + limit;
  size_t done = 0;
  while (done < frame.size()) {
    FilerWireStatus waited = wait_for(fd, POLLOUT, deadline);
    if (waited != FilerWireStatus::kOk) return waited;
    iovec iov{frame.data() + done, frame.size() - done};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    // The descriptor rides with the frame's first byte, so it goes with the
    // first write that gets anything through.
    if (with_descriptor && done == 0) {
      std::memset(control, 0, sizeof control);
      msg.msg_control = control;
      msg.msg_controllen = sizeof control;
      cmsghdr* c = CMSG_FIRSTHDR(&msg);
      c->cmsg_level = SOL_SOCKET;
      c->cmsg_type = SCM_RIGHTS;
      c->cmsg_len = CMSG_LEN(sizeof(int));
      int passed = message.descriptor.get();
      std::memcpy(CMSG_DATA(c), &passed, sizeof passed);
    }
    ssize_t n = ::sendmsg(fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) continue;
      if (errno == EPIPE || errno == ECONNRESET) return FilerWireStatus::kClosed;
      return FilerWireStatus::kIoError;
    }
    done += static_cast<size_t>(n);
  }
  return FilerWireStatus::kOk;
}

FilerWireStatus receive_filer_message(int fd, FilerMessage* message, std::chrono::milliseconds limit) {
  Clock::time_point deadline = Clock::now() + limit;
  UniqueFd descriptor;
  char head[kFilerHeaderBytes];
  FilerWireStatus status = read_exactly(fd, head, sizeof head, deadline, &descriptor);
  if (status != FilerWireStatus::kOk) return status;
  Header header;
  status = parse_header(head, &header);
  if (status != FilerWireStatus::kOk) return status;
  std::string body(header.body_length, '\0');
  status = read_exactly(fd, body.data(), body.size(), deadline, &descriptor);
  if (status != FilerWireStatus::kOk) return status;
  FilerMessage decoded;
  status = parse_body(header.id, body, &decoded);
  if (status != FilerWireStatus::kOk) return status;
  if (header.descriptors == 1) {
    if (!descriptor.valid()) return FilerWireStatus::kMalformed;
    decoded.descriptor = std::move(descriptor);
  }
  *message = std::move(decoded);
  return FilerWireStatus::kOk;
}

UniqueFd connect_filer_socket(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    return UniqueFd();
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd.valid()) return fd;
  // A full listen queue makes connect wait; the send limit bounds that wait.
  timeval limit{static_cast<time_t>(kFilerTimeLimit.count() / 1000), 0};
  ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  int rc;
  do {
    rc = ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) return UniqueFd();
  return fd;
}

}  // namespace platform
