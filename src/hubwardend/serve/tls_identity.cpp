// Checking an installed certificate and key, and making the self-signed
// pair the daemon uses when none was installed.
#include "hubwardend/serve/tls_identity.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <climits>
#include <memory>
#include <string_view>

#include "platform/file_util.h"

namespace hubwardend::serve {

namespace {

constexpr size_t kMaxPemBytes = size_t{1} << 20;
constexpr long kValidDays = 3650;
constexpr int kCommonNameLimit = 64;  // the longest CN a certificate may carry

template <class T, void (*Free)(T*)>
struct OpenSslDeleter {
  void operator()(T* object) const { Free(object); }
};
template <class T, void (*Free)(T*)>
using OpenSslPtr = std::unique_ptr<T, OpenSslDeleter<T, Free>>;

using Bio = OpenSslPtr<BIO, BIO_free_all>;
using Key = OpenSslPtr<EVP_PKEY, EVP_PKEY_free>;
using Certificate = OpenSslPtr<X509, X509_free>;
using BigNumber = OpenSslPtr<BIGNUM, BN_free>;
void free_general_names(GENERAL_NAMES* names) { GENERAL_NAMES_free(names); }
using GeneralNames = OpenSslPtr<GENERAL_NAMES, free_general_names>;

Bio memory_bio(std::string_view contents) {
  return Bio(BIO_new_mem_buf(contents.data(), static_cast<int>(contents.size())));
}

std::string bio_contents(BIO* bio) {
  char* data = nullptr;
  long length = BIO_get_mem_data(bio, &data);
  return length > 0 ? std::string(data, static_cast<size_t>(length)) : std::string();
}

std::string host_name() {
  char buffer[HOST_NAME_MAX + 1] = {};
  if (::gethostname(buffer, sizeof buffer - 1) != 0 || buffer[0] == '\0') return "localhost";
  return buffer;
}

// Only names a client could look up go into the certificate as DNS names.
bool is_dns_name(std::string_view name) {
  if (name.empty() || name.size() > 253) return false;
  for (char c : name) {
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.';
    if (!ok) return false;
  }
  return true;
}

bool add_dns_name(GENERAL_NAMES* names, const std::string& name) {
  GENERAL_NAME* entry = GENERAL_NAME_new();
  ASN1_IA5STRING* text = ASN1_IA5STRING_new();
  if (!entry || !text || ASN1_STRING_set(text, name.data(), static_cast<int>(name.size())) != 1) {
    GENERAL_NAME_free(entry);
    ASN1_IA5STRING_free(text);
    return false;
  }
  GENERAL_NAME_set0_value(entry, GEN_DNS, text);
  return sk_GENERAL_NAME_push(names, entry) > 0;
}

bool add_ip_address(GENERAL_NAMES* names, const char* address) {
  GENERAL_NAME* entry = GENERAL_NAME_new();
  ASN1_OCTET_STRING* octets = a2i_IPADDRESS(address);
  if (!entry || !octets) {
    GENERAL_NAME_free(entry);
    ASN1_OCTET_STRING_free(octets);
    return false;
  }
  GENERAL_NAME_set0_value(entry, GEN_IPADD, octets);
  return sk_GENERAL_NAME_push(names, entry) > 0;
}

bool add_extension(X509* certificate, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
  if (!extension) return false;
  bool added = X509_add_ext(certificate, extension, -1) == 1;
  X509_EXTENSION_free(extension);
  return added;
}

// The PEM texts of a new P-256 key and a certificate for it, signed by
// itself. False when OpenSSL fails anywhere.
bool make_self_signed(std::string* certificate_pem, std::string* key_pem) {
  Key key(EVP_EC_gen("P-256"));
  Certificate certificate(X509_new());
  BigNumber serial(BN_new());
  if (!key || !certificate || !serial) return false;

  std::string host = host_name();
  std::string common_name = host.size() <= kCommonNameLimit ? host : "localhost";
  X509_NAME* subject = X509_get_subject_name(certificate.get());
  bool ok = X509_set_version(certificate.get(), 2) == 1 &&
            BN_rand(serial.get(), 127, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) == 1 &&
            BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(certificate.get())) != nullptr &&
            X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0) != nullptr &&
            X509_time_adj_ex(X509_getm_notAfter(certificate.get()), kValidDays, 0, nullptr) != nullptr &&
            X509_set_pubkey(certificate.get(), key.get()) == 1 &&
            X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8,
                                       reinterpret_cast<const unsigned char*>(common_name.c_str()), -1, -1, 0) == 1 &&
            X509_set_issuer_name(certificate.get(), subject) == 1;
  if (!ok) return false;

  GeneralNames names(sk_GENERAL_NAME_new_null());
  if (!names) return false;
  if (is_dns_name(host) && host != "localhost" && !add_dns_name(names.get(), host)) return false;
  if (!add_dns_name(names.get(), "localhost") || !add_ip_address(names.get(), "127.0.0.1") ||
      !add_ip_address(names.get(), "::1")) {
    return false;
  }
  ok = X509_add1_ext_i2d(certificate.get(), NID_subject_alt_name, names.get(), 0, X509V3_ADD_DEFAULT) == 1 &&
       add_extension(certificate.get(), NID_basic_constraints, "critical,CA:FALSE") &&
       add_extension(certificate.get(), NID_key_usage, "critical,digitalSignature") &&
       add_extension(certificate.get(), NID_ext_key_usage, "serverAuth") &&
       add_extension(certificate.get(), NID_subject_key_identifier, "hash") &&
       X509_sign(certificate.get(), key.get(), EVP_sha256()) > 0;
  if (!ok) return false;

  Bio certificate_out(BIO_new(BIO_s_mem()));
  Bio key_out(BIO_new(BIO_s_mem()));
  if (!certificate_out || !key_out || PEM_write_bio_X509(certificate_out.get(), certificate.get()) != 1 ||
      PEM_write_bio_PrivateKey(key_out.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    return false;
  }
  *certificate_pem = bio_contents(certificate_out.get());
  *key_pem = bio_contents(key_out.get());
  return true;
}

bool check_installed_pair(const std::string& cert_path, const std::string& key_path, std::string* error) {
  auto certificate_pem = platform::read_file(cert_path, kMaxPemBytes);
  if (!certificate_pem) {
    *error = "cannot read the TLS certificate " + cert_path;
    return false;
  }
  auto key_pem = platform::read_file(key_path, kMaxPemBytes);
  if (!key_pem) {
    *error = "cannot read the TLS key " + key_path;
    return false;
  }
  Bio certificate_in = memory_bio(*certificate_pem);
  Certificate certificate(PEM_read_bio_X509(certificate_in.get(), nullptr, nullptr, nullptr));
  if (!certificate) {
    *error = "the TLS certificate " + cert_path + " is not a PEM certificate";
    return false;
  }
  Bio key_in = memory_bio(*key_pem);
  // No passphrase callback: an encrypted key cannot be used unattended.
  Key key(PEM_read_bio_PrivateKey(
      key_in.get(), nullptr, [](char*, int, int, void*) { return 0; }, nullptr));
  if (!key) {
    *error = "the TLS key " + key_path + " is not an unencrypted PEM private key";
    return false;
  }
  if (X509_check_private_key(certificate.get(), key.get()) != 1) {
    *error = "the TLS key " + key_path + " does not belong to the certificate " + cert_path;
    return false;
  }
  return true;
}

}  // namespace

bool ensure_tls_identity(const std::string& cert_path, const std::string& key_path, std::string* error) {
  std::string ignored;
  if (!error) error = &ignored;
  bool have_certificate = platform::file_exists(cert_path);
  bool have_key = platform::file_exists(key_path);
  if (have_certificate && have_key) return check_installed_pair(cert_path, key_path, error);
  if (have_certificate) {
    *error = "the TLS certificate " + cert_path + " has no key at " + key_path + "; install both or neither";
    return false;
  }
  if (have_key) {
    *error = "the TLS key " + key_path + " has no certificate at " + cert_path + "; install both or neither";
    return false;
  }

  std::string certificate_pem, key_pem;
  if (!make_self_signed(&certificate_pem, &key_pem)) {
    *error = "cannot make a self-signed TLS certificate";
    return false;
  }
  // The key goes first and is taken back if the certificate cannot follow,
  // so a failure never leaves half a pair that the next start would refuse.
  if (!platform::write_file_atomically(key_path, key_pem, 0600)) {
    *error = "cannot write the TLS key " + key_path;
    return false;
  }
  if (!platform::write_file_atomically(cert_path, certificate_pem, 0644)) {
    ::unlink(key_path.c_str());
    *error = "cannot write the TLS certificate " + cert_path;
    return false;
  }
  return true;
}

}  // namespace hubwardend::serve
