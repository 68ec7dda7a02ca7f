// One ICU transliterator for the process, made on first use.
#include "identity/latin_transform.h"

#include <unicode/translit.h>
#include <unicode/unistr.h>
#include <unicode/utypes.h>

#include <memory>
#include <mutex>

namespace hubwarden {

namespace {

std::mutex gTransformLock;

// REQUIRES: gTransformLock held. nullptr when ICU cannot build the
// transform; that is not retried, since the data will not appear later.
icu::Transliterator* shared_transform() {
  static std::unique_ptr<icu::Transliterator> transform = [] {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Transliterator> made(icu::Transliterator::createInstance(
        icu::UnicodeString::fromUTF8("Any-Latin; Latin-ASCII"), UTRANS_FORWARD, status));
    if (U_FAILURE(status)) made.reset();
    return made;
  }();
  return transform.get();
}

}  // namespace

std::optional<std::string> transliterate_to_latin(const std::string& utf8) {
  icu::UnicodeString text = icu::UnicodeString::fromUTF8(utf8);
  {
    std::lock_guard lock(gTransformLock);
    icu::Transliterator* transform = shared_transform();
    if (transform == nullptr) return std::nullopt;
    transform->transliterate(text);
  }
  std::string out;
  text.toUTF8String(out);
  return out;
}

}  // namespace hubwarden
