// The server's computer name (free text people see) and its local host
// name (the multicast DNS label it is published under), and the changes of
// both from the settings write.
//
// A change writes the name through a preferences session of the system
// configuration store, then waits on the calling thread for the store to
// announce it, for exactly kNameChangeWait: the caller blocks that long
// even when the announcement comes at once. Only one change should run at
// a time (the daemon's context lock sees to that); the pure functions are
// safe from any thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "platform/sysconfig.h"

namespace hubwarden {

// Result codes of the setters below.
inline constexpr int kInvalidComputerNameErr = 100010;
inline constexpr int kCannotSetLocalcastNameErr = 100011;
inline constexpr int kCannotSetComputerNameErr = 100012;  // also: no preferences session
inline constexpr int kNameChangeNotSeenErr = 100024;

// The local name used when nothing usable can be made of the given text.
inline constexpr char kFallbackLocalcastName[] = "Hostbox";
// How much output room the callers give the byte filter.
inline constexpr size_t kPlainNameCapacity = 1024;
inline constexpr std::chrono::milliseconds kNameChangeWait{5000};

// True for 1 to 63 UTF-16 code units of well-formed UTF-8 without '=', '*',
// '@' or ':'; false for nullptr.
bool is_computer_name_valid(const std::string* name);

// The byte filter that turns a name into a host name label. in and out are
// length-prefixed: in[0] bytes of text follow in[0]; out must have room for
// 1 + capacity bytes and receives the same form. Keeps ASCII letters, and
// after the first letter digits and inner hyphens; drops apostrophes (plain
// and typographic); turns every other run of bytes into one hyphen; strips
// trailing hyphens. Never writes more than capacity text bytes.
void get_plain_ascii_name(const unsigned char* in, unsigned char* out, size_t capacity);

// The filter applied to name's UTF-8 bytes. A name longer than 255 bytes is
// filtered only as far as its length modulo 256 reaches (the length byte
// wraps). nullopt when nothing is left.
std::optional<std::string> get_zero_conf_name_from_computer_name(const std::string& name);

// A valid DNS label made from any text: filtered, else transliterated to
// Latin and filtered, else kFallbackLocalcastName (also for an empty name,
// and for a result that is not a valid DNS name, e.g. longer than 63 bytes).
std::string munge_name_into_legal_localcast_name(const std::string& name);

// A preferences session under the client name "hubwarden_info"; nullptr
// when the store offers none (the caller answers kCannotSetComputerNameErr).
std::unique_ptr<platform::PreferencesSession> init_preferences_session();

// Write one name in one transaction: lock (without waiting), set, commit,
// apply, unlock. 0, or the name's error code (kCannotSetComputerNameErr,
// kCannotSetLocalcastNameErr) when any step fails; a failed lock is not
// unlocked, and nothing written before a failure is undone.
int set_computer_name_with_preferences_session(const std::string& name, platform::PreferencesSession& session);
int set_localcast_name_with_preferences_session(const std::string& name, platform::PreferencesSession& session);

// A store session under the client name "BravuraAdmin" that watches the
// computer name and the host names; nullptr after logging the failed step
// with the process id (the caller answers kNameChangeNotSeenErr).
std::unique_ptr<platform::StoreSession> init_detection_runloop();

// The store session's change callback: marks the name as changed.
void computer_name_changed_callback();

// Waits the whole kNameChangeWait on the calling thread for a change seen
// by store. 0 when one came; kNameChangeNotSeenErr (logged as a notice)
// when none did or the session had nothing to wait on.
int detect_with_runloop(platform::StoreSession& store);

// The whole change, as the settings write makes it. set_computer_name
// refuses an invalid name with kInvalidComputerNameErr before anything is
// written; set_localcast_name never refuses, it munges the name first.
// Otherwise 0, or the first failure's code: kNameChangeNotSeenErr when
// the watch cannot be set up or the change is not announced in time (the
// name stays written), kCannotSetComputerNameErr /
// kCannotSetLocalcastNameErr when it cannot be written.
int set_computer_name(const std::string& name);
int set_localcast_name(const std::string& name);

}  // namespace hubwarden
