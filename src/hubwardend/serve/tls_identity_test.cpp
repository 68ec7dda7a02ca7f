// The HTTPS identity: a self-signed pair made once and reused, installed
// pairs taken as they are, half or mismatched pairs refused.
#include "hubwardend/serve/tls_identity.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <set>

#include "platform/file_util.h"
#include "platform/linux/basics_test_support.h"

namespace hubwardend::serve {
namespace {

using platform::testing::ScratchDir;

mode_t mode_of(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

// The certificate's subject alternative names as "DNS:x" and "IP:y".
std::set<std::string> alternative_names(const std::string& pem) {
  std::set<std::string> result;
  BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  X509* certificate = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
  BIO_free(bio);
  if (!certificate) return result;
  auto* names = static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr));
  for (int i = 0; names && i < sk_GENERAL_NAME_num(names); ++i) {
    const GENERAL_NAME* name = sk_GENERAL_NAME_value(names, i);
    if (name->type == GEN_DNS) {
      result.insert("DNS:" + std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(name->d.dNSName)),
                                         ASN1_STRING_length(name->d.dNSName)));
    } else if (name->type == GEN_IPADD) {
      const ASN1_OCTET_STRING* octets = name->d.iPAddress;
      char text[INET6_ADDRSTRLEN] = "?";
      int family = ASN1_STRING_length(octets) == 4 ? AF_INET : AF_INET6;
      inet_ntop(family, ASN1_STRING_get0_data(octets), text, sizeof text);
      result.insert(std::string("IP:") + text);
    }
  }
  GENERAL_NAMES_free(names);
  // Ten years ahead, not a day less than nine.
  time_t nine_years = time(nullptr) + 9L * 365 * 24 * 3600;
  EXPECT_GT(X509_cmp_time(X509_get0_notAfter(certificate), &nine_years), 0);
  X509_free(certificate);
  return result;
}

TEST(TlsIdentityTest, MakesASelfSignedPairOnceAndReusesIt) {
  ScratchDir scratch;
  std::string cert = scratch.path("/etc/hubwarden/tls/server.crt");
  std::string key = scratch.path("/etc/hubwarden/tls/server.key");
  std::string error;
  ASSERT_TRUE(ensure_tls_identity(cert, key, &error)) << error;

  EXPECT_EQ(mode_of(key), 0600u);
  EXPECT_EQ(mode_of(scratch.path("/etc/hubwarden/tls")), 0755u);
  auto cert_pem = platform::read_file(cert);
  auto key_pem = platform::read_file(key);
  ASSERT_TRUE(cert_pem && key_pem);
  std::set<std::string> names = alternative_names(*cert_pem);
  EXPECT_TRUE(names.count("DNS:localhost")) << "localhost missing";
  EXPECT_TRUE(names.count("IP:127.0.0.1"));
  EXPECT_TRUE(names.count("IP:::1"));

  // The second start keeps the pair: clients that pinned it stay valid.
  ASSERT_TRUE(ensure_tls_identity(cert, key, &error)) << error;
  EXPECT_EQ(platform::read_file(cert), cert_pem);
  EXPECT_EQ(platform::read_file(key), key_pem);
}

TEST(TlsIdentityTest, RefusesHalfAndMismatchedPairsNamingTheFile) {
  ScratchDir scratch;
  std::string cert = scratch.path("/a.crt"), key = scratch.path("/a.key");
  std::string other_cert = scratch.path("/b.crt"), other_key = scratch.path("/b.key");
  std::string error;
  ASSERT_TRUE(ensure_tls_identity(cert, key, &error)) << error;
  ASSERT_TRUE(ensure_tls_identity(other_cert, other_key, &error)) << error;

  std::string lone_cert = scratch.path("/lone.crt");
  ASSERT_TRUE(platform::write_file_atomically(lone_cert, *platform::read_file(cert)));
  EXPECT_FALSE(ensure_tls_identity(lone_cert, scratch.path("/none.key"), &error));
  EXPECT_NE(error.find(lone_cert), std::string::npos) << error;
  EXPECT_FALSE(platform::file_exists(scratch.path("/none.key"))) << "a half pair was completed";

  std::string lone_key = scratch.path("/lone.key");
  ASSERT_TRUE(platform::write_file_atomically(lone_key, *platform::read_file(key), 0600));
  EXPECT_FALSE(ensure_tls_identity(scratch.path("/none.crt"), lone_key, &error));
  EXPECT_NE(error.find(lone_key), std::string::npos) << error;

  EXPECT_FALSE(ensure_tls_identity(cert, other_key, &error));
  EXPECT_NE(error.find("does not belong"), std::string::npos) << error;

  ASSERT_TRUE(platform::write_file_atomically(scratch.path("/garbage.crt"), "not a certificate\n"));
  EXPECT_FALSE(ensure_tls_identity(scratch.path("/garbage.crt"), key, &error));
  EXPECT_NE(error.find("garbage.crt"), std::string::npos) << error;
}

}  // namespace
}  // namespace hubwardend::serve
