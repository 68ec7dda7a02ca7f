// The remote procedures of the file server's control service: one request
// and one reply each on a FilerPort.
//
// Every call returns 0, a kFiler* status or a transport code (filer_codes.h):
// - a data call without its length pointer, or without a buffer where the
//   capacity asks for one, is kFilerBadArgument before anything is sent;
//   the length is preset to the capacity;
// - a reply longer than the capacity is cut to it, with kFilerTruncated;
// - on failure (the server's own return code or the transport's) the length
//   becomes 0; a server that is gone is kFilerServerUnreachable; and when
//   the caller is root but the file server's job is not enabled, every
//   failure is kFilerJobNotEnabled instead.
// Safe from any thread as long as a port is used by one thread at a time.
#pragma once

#include <cstdint>

#include "hubwarden_info/switches/filerctl/filer_port.h"

namespace hubwarden {

// Reads server attribute code into buffer (at most capacity bytes);
// *length is the number of bytes copied.
int SCGetServerAttribute(const FilerPort& port, uint32_t code, uint32_t* length, void* buffer, uint32_t capacity);

// Sends command code with its argument (length bytes of data); the reply,
// if the server sends one, goes to reply (at most reply_capacity bytes) and
// *reply_length. A command without reply passes a null reply and capacity 0.
int SCSendServerCommand(const FilerPort& port, uint32_t code, const void* data, uint32_t length, uint32_t* reply_length,
                        void* reply, uint32_t reply_capacity);

// Object iterators over the server's objects of kind (sessions, shares).
int SCCreateObjectIter(const FilerPort& port, uint32_t kind, uint32_t* iterator);
int SCGetIterAttribute(const FilerPort& port, uint32_t iterator, uint32_t code, uint32_t* length, void* buffer,
                       uint32_t capacity);
int SCAdvanceIterator(const FilerPort& port, uint32_t iterator);
int SCDestroyIterator(const FilerPort& port, uint32_t iterator);

// Registers notify_port (a descriptor the caller keeps; the server gets its
// own copy) for the server's events, with an argument of length bytes.
int SCRegisterNotiferPort(const FilerPort& port, uint32_t code, const void* data, uint32_t length, int notify_port);

}  // namespace hubwarden
