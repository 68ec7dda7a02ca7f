#include "hubwardend/serve/static_files.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace hubwardend::serve {
namespace {

namespace fs = std::filesystem;

std::string header(const HttpResponse& r, const std::string& name) {
  for (const auto& [key, value] : r.headers)
    if (key == name) return value;
  return "";
}

class StaticFilesTest : public ::testing::Test {
 protected:
  StaticFilesTest() {
    base_ = fs::temp_directory_path() / ("static-files-" + std::to_string(::getpid()));
    fs::remove_all(base_);
    fs::create_directories(base_ / "web/js");
    write(base_ / "web/index.html", "<!doctype html><p>console</p>");
    write(base_ / "web/js/app.js", "export {};");
    write(base_ / "web/logo.png", "PNG");
    write(base_ / "web/.hidden", "secret");
    write(base_ / "secret.txt", "outside");
    fs::create_symlink(base_ / "secret.txt", base_ / "web/out.txt");
    fs::create_symlink("index.html", base_ / "web/alias.html");
    files_ = std::make_unique<StaticFiles>((base_ / "web").string());
  }
  ~StaticFilesTest() override { fs::remove_all(base_); }

  static void write(const fs::path& path, const std::string& text) { std::ofstream(path) << text; }
  HttpResponse get(const std::string& target, const std::string& method = "GET", const std::string& etag = "") {
    HttpRequest r;
    r.method = method;
    r.target = target;
    r.if_none_match = etag;
    return files_->serve(r);
  }

  fs::path base_;
  std::unique_ptr<StaticFiles> files_;
};

TEST_F(StaticFilesTest, ServesFilesWithTypesAndRevalidation) {
  HttpResponse index = get("/?from=bookmark");
  ASSERT_EQ(index.status, 200);
  EXPECT_EQ(index.body, "<!doctype html><p>console</p>");
  EXPECT_EQ(index.content_type, "text/html; charset=utf-8");
  EXPECT_EQ(header(index, "Cache-Control"), "no-cache");
  EXPECT_EQ(header(index, "X-Frame-Options"), "DENY");
  EXPECT_NE(header(index, "Content-Security-Policy").find("default-src 'none'"), std::string::npos);
  EXPECT_EQ(get("/js/app.js").content_type, "text/javascript; charset=utf-8");
  EXPECT_EQ(get("/logo.png").content_type, "image/png");
  EXPECT_EQ(get("/alias.html").status, 200);  // a link that stays inside is fine

  std::string etag = header(index, "ETag");
  ASSERT_FALSE(etag.empty());
  HttpResponse again = get("/index.html", "GET", "\"other\", " + etag);
  EXPECT_EQ(again.status, 304);
  EXPECT_TRUE(again.body.empty());
  EXPECT_EQ(header(again, "ETag"), etag);

  HttpResponse head = get("/", "HEAD");
  EXPECT_EQ(head.status, 200);
  EXPECT_TRUE(head.body.empty());
  EXPECT_EQ(header(head, "ETag"), etag);

  // A changed file is read again and gets a new tag.
  write(base_ / "web/index.html", "<!doctype html><p>console, changed</p>");
  HttpResponse changed = get("/", "GET", etag);
  EXPECT_EQ(changed.status, 200);
  EXPECT_EQ(changed.body, "<!doctype html><p>console, changed</p>");
  EXPECT_NE(header(changed, "ETag"), etag);

  HttpResponse post = get("/", "POST");
  EXPECT_EQ(post.status, 405);
  EXPECT_EQ(header(post, "Allow"), "GET, HEAD");
}

TEST_F(StaticFilesTest, NothingOutsideTheFolderOrHiddenIsServed) {
  for (const char* target :
       {"/../secret.txt", "/%2e%2e/secret.txt", "/js/..%2f..%2fsecret.txt", "/.hidden", "/%2ehidden", "/out.txt", "/js",
        "/js/", "//index.html", "/missing.js", "/index.html%00", "/%zz", "/%4", "index.html", "/js/./app.js"}) {
    HttpResponse r = get(target);
    EXPECT_EQ(r.status, 404) << target;
    EXPECT_EQ(r.body.find("outside"), std::string::npos) << target;
    EXPECT_EQ(header(r, "X-Content-Type-Options"), "nosniff") << target;
  }
  EXPECT_EQ(get("/j%73/app.js").status, 200);  // a plain escape is decoded

  StaticFiles none("");
  HttpRequest r;
  r.method = "GET";
  r.target = "/";
  EXPECT_FALSE(none.usable());
  EXPECT_EQ(none.serve(r).status, 404);
}

}  // namespace
}  // namespace hubwardend::serve
