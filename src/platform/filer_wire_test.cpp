#include "platform/filer_wire.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>

namespace platform {
namespace {

using namespace std::chrono_literals;

struct SocketPair {
  SocketPair() {
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) abort();
    a.reset(fds[0]);
    b.reset(fds[1]);
  }
  UniqueFd a, b;
};

FilerMessage make(int32_t id, std::vector<FilerField> fields) {
  FilerMessage m;
  m.id = id;
  m.fields = std::move(fields);
  return m;
}

void put_u32_at(std::string* frame, size_t offset, uint32_t value) {
  for (int i = 0; i < 4; ++i) (*frame)[offset + i] = static_cast<char>((value >> (8 * i)) & 0xff);
}

TEST(FilerWireTest, EveryShapeSurvivesTheSocket) {
  std::string big(1 << 20, 'x');
  std::vector<FilerMessage> messages;
  messages.push_back(make(0, {uint32_t{0x73746178}, uint32_t{24}}));
  messages.push_back(make(1, {std::string("abc\0d", 5), uint32_t{1}, uint32_t{5}}));
  messages.push_back(make(2, {big, uint32_t{0x736d6573}, uint32_t(big.size()), uint32_t{0}}));
  messages.push_back(make(3, {uint32_t{7}}));
  messages.push_back(make(4, {uint32_t{1}, uint32_t{2}, uint32_t{3}}));
  messages.push_back(make(5, {uint32_t{9}}));
  messages.push_back(make(6, {uint32_t{9}}));
  messages.push_back(make(100, {uint32_t(-10001), std::string(30, '\1')}));
  messages.push_back(make(101, {uint32_t{0}}));
  messages.push_back(make(102, {uint32_t{0}, std::string()}));
  messages.push_back(make(103, {uint32_t{0}, uint32_t{42}}));
  messages.push_back(make(104, {uint32_t{0}, std::string("z")}));
  messages.push_back(make(105, {uint32_t{0}}));
  messages.push_back(make(106, {uint32_t{0}}));
  messages.push_back(make(107, {uint32_t{0}}));

  SocketPair pair;
  for (const FilerMessage& sent : messages) {
    // The 1 MB text outgrows the socket buffer, so the peer must read while
    // we write.
    FilerMessage got;
    FilerWireStatus received = FilerWireStatus::kIoError;
    std::thread reader([&] { received = receive_filer_message(pair.b.get(), &got); });
    EXPECT_EQ(send_filer_message(pair.a.get(), sent), FilerWireStatus::kOk) << sent.id;
    reader.join();
    ASSERT_EQ(received, FilerWireStatus::kOk) << sent.id;
    EXPECT_EQ(got.id, sent.id);
    EXPECT_EQ(got.fields, sent.fields) << sent.id;
    EXPECT_FALSE(got.descriptor.valid());
  }

  // The notify port travels as a descriptor of its own.
  SocketPair port;
  FilerMessage with_port = make(7, {std::string("rfev"), uint32_t{0x72666576}, uint32_t{4}});
  with_port.descriptor.reset(::dup(port.a.get()));
  ASSERT_EQ(send_filer_message(pair.a.get(), with_port), FilerWireStatus::kOk);
  FilerMessage got;
  ASSERT_EQ(receive_filer_message(pair.b.get(), &got), FilerWireStatus::kOk);
  ASSERT_TRUE(got.descriptor.valid());
  EXPECT_NE(got.descriptor.get(), with_port.descriptor.get());
  EXPECT_EQ(::write(got.descriptor.get(), "!", 1), 1);
  char c = 0;
  EXPECT_EQ(::read(port.b.get(), &c, 1), 1);
  EXPECT_EQ(::fcntl(got.descriptor.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);

  // Shapes that do not fit their id are never sent.
  EXPECT_EQ(send_filer_message(pair.a.get(), make(0, {uint32_t{1}})), FilerWireStatus::kMalformed);
  EXPECT_EQ(send_filer_message(pair.a.get(), make(100, {uint32_t{1}, uint32_t{2}})), FilerWireStatus::kMalformed);
  EXPECT_EQ(send_filer_message(pair.a.get(), make(8, {})), FilerWireStatus::kMalformed);
  EXPECT_EQ(send_filer_message(pair.a.get(), make(7, {std::string(), uint32_t{0}, uint32_t{0}})),
            FilerWireStatus::kMalformed);
}

TEST(FilerWireTest, FramesThatLieAreRefused) {
  std::string good = encode_filer_frame(make(2, {std::string("bye"), uint32_t{1}, uint32_t{3}, uint32_t{0}}));
  FilerMessage m;
  ASSERT_EQ(decode_filer_frame(good, &m), FilerWireStatus::kOk);

  std::string frame = good;
  put_u32_at(&frame, 8, 0xffffffffu);  // 4 GB, or -1
  EXPECT_EQ(decode_filer_frame(frame, &m), FilerWireStatus::kTooLarge);
  frame = good;
  put_u32_at(&frame, 8, static_cast<uint32_t>(good.size() - kFilerHeaderBytes + 1));
  EXPECT_EQ(decode_filer_frame(frame, &m), FilerWireStatus::kMalformed);
  frame = good;
  put_u32_at(&frame, kFilerHeaderBytes, 1000);  // bytes longer than what remains
  EXPECT_EQ(decode_filer_frame(frame, &m), FilerWireStatus::kMalformed);
  frame = good;
  put_u32_at(&frame, kFilerHeaderBytes, 2);  // shorter: the words slide and bytes are left over
  EXPECT_EQ(decode_filer_frame(frame, &m), FilerWireStatus::kMalformed);
  frame = good;
  put_u32_at(&frame, 4, 99);  // unknown id
  EXPECT_EQ(decode_filer_frame(frame, &m), FilerWireStatus::kMalformed);
  frame = good;
  put_u32_at(&frame, 4, 101);  // a known id whose shape does not match the body
  EXPECT_EQ(decode_filer_frame(frame, &m), FilerWireStatus::kMalformed);
  frame = good;
  frame[0] ^= 1;
  EXPECT_EQ(decode_filer_frame(frame, &m), FilerWireStatus::kMalformed);
  frame = good;
  frame[20] = 9;  // foreign data representation
  EXPECT_EQ(decode_filer_frame(frame, &m), FilerWireStatus::kMalformed);
  frame = good;
  put_u32_at(&frame, 12, 1);  // a descriptor promised where none belongs
  EXPECT_EQ(decode_filer_frame(frame, &m), FilerWireStatus::kMalformed);
  EXPECT_EQ(decode_filer_frame(good.substr(0, 10), &m), FilerWireStatus::kMalformed);

  // Over the socket, a 4 GB body is refused from its header alone.
  SocketPair pair;
  frame = good;
  put_u32_at(&frame, 8, 0xfffffff0u);
  ASSERT_EQ(::write(pair.a.get(), frame.data(), frame.size()), static_cast<ssize_t>(frame.size()));
  EXPECT_EQ(receive_filer_message(pair.b.get(), &m, 200ms), FilerWireStatus::kTooLarge);
}

TEST(FilerWireTest, PeersThatCloseOrStaySilentEndTheWait) {
  std::string frame = encode_filer_frame(make(100, {uint32_t{0}, std::string(24, 'a')}));
  FilerMessage m;
  {
    SocketPair pair;
    ASSERT_EQ(::write(pair.a.get(), frame.data(), 30), 30);  // header and part of the body
    // The limit covers the whole frame, however the bytes trickle in.
    EXPECT_EQ(receive_filer_message(pair.b.get(), &m, 100ms), FilerWireStatus::kTimedOut);
  }
  {
    SocketPair pair;
    ASSERT_EQ(::write(pair.a.get(), frame.data(), 30), 30);
    pair.a.reset();
    EXPECT_EQ(receive_filer_message(pair.b.get(), &m, 2s), FilerWireStatus::kClosed);
  }
  {
    SocketPair pair;
    pair.a.reset();
    EXPECT_EQ(receive_filer_message(pair.b.get(), &m, 2s), FilerWireStatus::kClosed);
    EXPECT_EQ(send_filer_message(pair.b.get(), make(5, {uint32_t{1}})), FilerWireStatus::kClosed);
  }
  {
    SocketPair pair;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(receive_filer_message(pair.b.get(), &m, 100ms), FilerWireStatus::kTimedOut);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  }
  {
    // A descriptor the frame does not announce is closed, not kept.
    SocketPair pair, extra;
    int unasked = ::dup(extra.a.get());
    iovec iov{frame.data(), frame.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    cmsghdr* c = CMSG_FIRSTHDR(&msg);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(c), &unasked, sizeof unasked);
    ASSERT_EQ(::sendmsg(pair.a.get(), &msg, 0), static_cast<ssize_t>(frame.size()));
    ::close(unasked);
    ASSERT_EQ(receive_filer_message(pair.b.get(), &m, 2s), FilerWireStatus::kOk);
    EXPECT_FALSE(m.descriptor.valid());
    // Its copy is gone: the far end of `extra` sees the last writer leave.
    extra.a.reset();
    char byte;
    EXPECT_EQ(::read(extra.b.get(), &byte, 1), 0);
  }
  EXPECT_FALSE(connect_filer_socket("/nonexistent/filer.sock").valid());
}

}  // namespace
}  // namespace platform
