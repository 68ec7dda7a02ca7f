// The commands the daemon family sends to the file server. Each refuses a
// caller that is not root (kFilerBadArgument, logged as "<operation> by user
// <uid> failed; <operation> only be called by root"), then connects to the
// server afresh and sends one command under the remote procedure rules of
// filer_rpc.h. Safe from any thread.
#pragma once

#include <cstdint>

namespace hubwarden {

// Disconnects the sessions ids[0..count) with text as the farewell (none
// when null); reply receives the server's 4-byte answer.
int FilerDisconnectSessions(uint32_t word, const uint32_t* ids, uint32_t count, const char* text, uint32_t* reply);

// Disconnects the users of a volume, named by the two words.
int FilerDisconnectVolUsers(uint32_t first, uint32_t second, const char* text, uint32_t* reply);

// Sends text to the sessions ids[0..count). A null or empty text is
// kFilerBadArgument before anything else is checked.
int FilerSendMessage(const uint32_t* ids, uint32_t count, const char* text);

// Stops the server after the grace period in word. When the server is not
// running, the job is disabled instead and that result returned.
int FilerStopAndDisableServer(uint32_t word, const char* text, uint32_t* reply);

// Cancels the server's timer task word (a pending stop). When the server is
// not running, waits half a second and enables the job instead, returning
// that result.
int FilerCancelTimerTask(uint32_t word);

// Asks for the server's events on notify_port, which the caller keeps.
int FilerRegisterForEvents(uint32_t first, uint32_t second, int notify_port);

}  // namespace hubwarden
