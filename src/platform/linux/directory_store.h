// The Linux directory: a record store of users and groups under the root,
// joined by the system's own users and groups (NSS) when the root is "/".
// The store answers for the names it holds, NSS for the others.
//
// Records live at <root>/var/db/hubwarden/directory/users/NAME.plist and
// .../groups/NAME.plist, each an XML dictionary from attribute type names to
// arrays of strings. Parsed records are cached by file identity (device,
// inode, size, modification and change time), so a record replaced or edited
// by anyone is read afresh. Every node ("/Local/Default", "/Search" and, when
// the machine runs its own LDAP server, "/LDAPv3/127.0.0.1") sees the same
// records: the store is the server's own directory.
//
// The local LDAP node is available when the marker file
// <root>/etc/hubwarden/ldap-local exists, or when the directory client's
// configuration names an LDAP server on 127.0.0.1, ::1 or localhost.
//
// Safe from several threads. Writers are serialised within the process by a
// mutex and across processes by an advisory lock on the file ".lock" in the
// records folder; a writer that cannot get it within a few seconds fails
// with kDirectoryWriteFailed. Record files are opened without leaving a
// sandbox root, and anything but a regular file reads as a damaged record.
#pragma once

#include <memory>
#include <string_view>

#include "platform/directory.h"

namespace platform {

// An attribute value the store cannot hold as a list of strings.
constexpr int32_t kDirectoryInvalidValue = -14140;

std::unique_ptr<Directory> make_directory_store();

// Rules shared by the store and the in-memory fake.

// A record name that is safe as a file name: not empty, not ".", no "/",
// no "..", no NUL or other control characters.
bool is_valid_record_name(std::string_view name);

// Converts attributes given by a caller into the stored form, every value an
// array of strings: a string becomes a one-element array, integers their
// decimal text, booleans "YES" or "NO", arrays element by element.
// Non-integral reals, dates, data and dictionaries are refused
// (kDirectoryInvalidValue).
int32_t normalise_attributes(const plist::Dict& given, plist::Dict* out);

// The string values of attribute key: the elements of an array of strings
// (other elements skipped) or a lone string.
std::vector<std::string_view> attribute_values(const plist::Dict& record, std::string_view key);

// The first value of key parsed as an unsigned 32-bit number.
std::optional<uint32_t> attribute_number(const plist::Dict& record, std::string_view key);

}  // namespace platform
