// Rewriting text of any script in plain Latin letters, so that a name typed
// in Cyrillic, Greek or Han can still yield a host name. Safe from any
// thread: the one transform object is shared under a lock, since ICU's
// transliterators keep state while they work.
#pragma once

#include <optional>
#include <string>

namespace hubwarden {

// utf8 converted to Latin script and then to ASCII where ICU knows how
// ("Привет" -> "Privet"). Characters with no Latin form (symbols, emoji)
// pass through unchanged; invalid UTF-8 sequences become U+FFFD. nullopt
// when the transform cannot be made (ICU data missing).
std::optional<std::string> transliterate_to_latin(const std::string& utf8);

}  // namespace hubwarden
