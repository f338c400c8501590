#include "storage/http_server.h"

#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testing/raw_http_client.h"
#include "testing/storage_rig.h"

namespace vondle::storage {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

class HttpServerTest : public testing::Test {
 protected:
  HttpServerTest() { start({}); }
  ~HttpServerTest() override { stop(); }

  void start(const std::string& publicUrl) {
    server_ = std::make_unique<HttpServer>(HttpOptions{.publicUrl = publicUrl}, rig_.api(), rig_.contentHandlers());
    const auto port = server_->bind();
    ASSERT_TRUE(port) << port.error().localizedDescription();
    port_ = *port;
    thread_ = std::thread([this] { EXPECT_TRUE(server_->run()); });
  }
  void stop() {
    if (!thread_.joinable()) return;
    server_->stop();
    thread_.join();
  }

  std::string keyHeader() const { return "X-API-Key: " + rig_.keyOf("ann") + "\r\n"; }
  RawHttpClient::Response once(std::string_view method, const std::string& target, const std::string& headers = "",
                               std::string_view body = "") {
    return RawHttpClient(port_).request(method, target, headers, body);
  }
  RawHttpClient::Response browse(const std::string& headers = "") {
    return once("GET", "/vondle/api/browse?id=root", keyHeader() + headers);
  }
  // The path and query of an address.
  static std::string targetOf(const std::string& url) { return url.substr(url.find("/vondle/")); }
  std::string downloadTarget(const std::string& path) { return targetOf(rig_.at(path).text("download_url")); }

  StorageRig rig_;
  std::unique_ptr<HttpServer> server_;
  std::thread thread_;
  int port_ = 0;
};

TEST_F(HttpServerTest, TheApiAnswersJson) {
  const auto reply = browse();
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.header("content-type"), "application/json");
  EXPECT_EQ(reply.header("cache-control"), "no-store");
  EXPECT_TRUE(json::parseObject(reply.body));
  EXPECT_EQ(once("GET", "/vondle/api/browse?id=root").status, 401);
  const auto refused = once("POST", "/vondle/api/browse", keyHeader(), "{}");
  EXPECT_EQ(refused.status, 405);
  EXPECT_EQ(refused.header("allow"), "GET");
}

TEST_F(HttpServerTest, AConnectionServesManyRequests) {
  RawHttpClient client(port_);
  for (int i = 0; i < 20; ++i) {
    const auto reply = client.request("POST", "/vondle/api/folders", keyHeader(),
                                      R"({"name":"d)" + std::to_string(i) + R"(","path":""})");
    EXPECT_EQ(reply.status, 200) << reply.body;
  }
  EXPECT_EQ(rig_.tree().size(), 20U);
}

TEST_F(HttpServerTest, QueriesAreDecoded) {
  rig_.makeFolder("ü & b+c");
  for (const char* query : {"path=%C3%BC%20%26%20b%2Bc", "path=%C3%BC+%26+b%2bc"})
    EXPECT_EQ(once("GET", std::string("/vondle/api/browse?") + query, keyHeader()).status, 200) << query;
  EXPECT_EQ(once("GET", "/vondle/api/browse?path=a%00b", keyHeader()).status, 400);
}

TEST_F(HttpServerTest, AddressesNameTheHostThatTheClientUsesWhenItIsThisMachine) {
  rig_.makeFile("f", "x");
  const auto item = [&](const std::string& host) {
    RawHttpClient client(port_);
    client.send("GET /vondle/api/browse?id=root HTTP/1.1\r\nHost: " + host + "\r\n" + keyHeader() + "\r\n");
    return client.receive().body;
  };
  EXPECT_THAT(item("localhost:1234"), HasSubstr("\"http://localhost:1234/vondle/contents/"));
  EXPECT_THAT(item("127.0.0.1:5"), HasSubstr("\"http://127.0.0.1:5/vondle/contents/"));
  const std::string own = "\"http://127.0.0.1:" + std::to_string(port_) + "/vondle/contents/";
  for (const char* host : {"evil.example", "evil.example:80", "127.0.0.1.evil.example", "localhost@evil.example", "",
                           "127.0.0.1:80@evil.example", "localhost:80/x"})
    EXPECT_THAT(item(host), HasSubstr(own)) << host;
}

TEST_F(HttpServerTest, APublicAddressGoesBeforeTheClients) {
  rig_.makeFile("f", "x");
  stop();
  start("https://files.example");
  EXPECT_THAT(browse().body, HasSubstr("\"https://files.example/vondle/contents/"));
}

TEST_F(HttpServerTest, ContentsComeWholeOrByRange) {
  std::string bytes;
  for (int i = 0; i < 1000000; ++i) bytes += static_cast<char>(i * 31 + i / 251);
  rig_.makeFile("f", bytes);
  const auto target = downloadTarget("f");
  const auto whole = once("GET", target);
  EXPECT_EQ(whole.status, 200);
  EXPECT_TRUE(whole.body == bytes);
  EXPECT_EQ(whole.header("accept-ranges"), "bytes");
  EXPECT_EQ(whole.header("content-type"), "application/octet-stream");
  EXPECT_THAT(whole.header("etag"), StartsWith("\""));

  const auto part = once("GET", target, "Range: bytes=300000-300009\r\n");
  EXPECT_EQ(part.status, 206);
  EXPECT_EQ(part.body, bytes.substr(300000, 10));
  EXPECT_EQ(part.header("content-range"), "bytes 300000-300009/1000000");
  const auto end = once("GET", target, "Range: bytes=999990-2000000\r\n");
  EXPECT_EQ(end.status, 206);
  EXPECT_EQ(end.body, bytes.substr(999990));
  const auto none = once("GET", target, "Range: bytes=1000000-\r\n");
  EXPECT_EQ(none.status, 416);
  EXPECT_EQ(none.header("content-range"), "bytes */1000000");
  const auto several = once("GET", target, "Range: bytes=0-1,5-6\r\n");
  EXPECT_EQ(several.status, 200);
  EXPECT_EQ(several.body.size(), bytes.size());

  const auto head = once("HEAD", target);
  EXPECT_EQ(head.status, 200);
  EXPECT_EQ(head.header("content-length"), "1000000");
}

TEST_F(HttpServerTest, AnEmptyFileIsAnEmptyBody) {
  rig_.makeFile("f", "");
  const auto reply = once("GET", downloadTarget("f"));
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.header("content-length"), "0");
}

TEST_F(HttpServerTest, ARangeOnTheApiIsNotApplied) {
  const auto reply = browse("Range: bytes=0-3\r\n");
  EXPECT_EQ(reply.status, 200);
  EXPECT_TRUE(json::parseObject(reply.body));
}

TEST_F(HttpServerTest, ContentsAreSentWithOnePut) {
  const std::string bytes(700000, 'x');
  const auto target = targetOf(rig_.target("", "f", 700000).text("upload_url"));
  const auto reply = once("PUT", target, "Content-Type: application/octet-stream\r\n", bytes);
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.body, "");
  EXPECT_EQ(reply.header("etag"), "\"" + hexadecimal(sha256(bytes)) + "\"");
  EXPECT_EQ(rig_.at("f").number("size"), 700000);
  EXPECT_EQ(once("PUT", targetOf(rig_.target("", "empty", 0).text("upload_url"))).status, 200);
  EXPECT_EQ(rig_.at("empty").number("size"), 0);
}

TEST_F(HttpServerTest, ALengthThatIsNoLengthIsRefused) {
  const auto file = rig_.makeFile("f", "x");
  const auto place = rig_.post("content-url", {{"id", file.text("id")}, {"base_version", 1}});
  for (const char* length : {"-1", "18446744073709551615", "99999999999999999999999", "1x", "+1", "0x10"}) {
    RawHttpClient client(port_);
    client.send("PUT " + targetOf(place.text("upload_url")) + " HTTP/1.1\r\nHost: x\r\nContent-Length: " + length +
                "\r\n\r\nx");
    EXPECT_GE(client.receive().status, 400) << length;
    EXPECT_TRUE(client.isEnded()) << length;
  }
  EXPECT_EQ(once("PUT", targetOf(place.text("upload_url")), "Content-Length: 1\r\n", "x").status, 411);
}

TEST_F(HttpServerTest, StoppingAtOnceIsNotLost) {
  for (int i = 0; i < 20; ++i) {
    stop();
    start({});
  }
}

TEST_F(HttpServerTest, AClientThatWaitsForLeaveToSendGetsIt) {
  const auto target = targetOf(rig_.target("", "f", 5).text("upload_url"));
  RawHttpClient client(port_);
  client.send("PUT " + target + " HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\nContent-Length: 5\r\n\r\n");
  client.send("hello");
  EXPECT_EQ(client.receive().status, 200);
  EXPECT_EQ(rig_.at("f").number("size"), 5);
}

TEST_F(HttpServerTest, ABodyThatEndsEarlyIsForgotten) {
  const auto target = targetOf(rig_.target("", "f", 5).text("upload_url"));
  {
    RawHttpClient client(port_);
    client.send("PUT " + target + " HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n\r\nhel");
    client.finishSending();
    EXPECT_NE(client.receive().status, 200);
    EXPECT_TRUE(client.isEnded());
  }
  EXPECT_TRUE(rig_.tree().empty());
  EXPECT_EQ(rig_.storedFiles(), 0U);
}

TEST_F(HttpServerTest, WhatFollowsTheAnnouncedLengthIsNotOfTheBody) {
  const auto target = targetOf(rig_.target("", "f", 5).text("upload_url"));
  RawHttpClient client(port_);
  client.send("PUT " + target + " HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n\r\nhello, world\r\n\r\n");
  EXPECT_EQ(client.receive().status, 200);
  EXPECT_EQ(client.receive().status, 400);
  EXPECT_EQ(once("GET", downloadTarget("f")).body, "hello");
}

TEST_F(HttpServerTest, AfterAnEarlyRefusalTheRestOfTheBodyIsNoRequest) {
  const std::string smuggled = "POST /vondle/api/folders HTTP/1.1\r\nHost: x\r\n" + keyHeader() +
                               "Content-Length: 24\r\n\r\n{\"name\":\"x\",\"path\":\"\"}  ";
  const std::string starts[] = {
      "PUT /vondle/uploads/0123456789abcdef0123456789abcdef?expires=1&signature=1 HTTP/1.1\r\n",
      "PUT /elsewhere HTTP/1.1\r\n",
      "DELETE /vondle/api/browse HTTP/1.1\r\n",
      "GET /vondle/api/browse HTTP/1.1\r\n",
      "POST /vondle/api/folders HTTP/1.1\r\nContent-Encoding: gzip\r\n",
      "POST /vondle/api/folders HTTP/1.1\r\nContent-Type: multipart/form-data; boundary=x\r\n",
      "POST /vondle/api/folders HTTP/1.1\r\nContent-Encoding: unknown\r\n",
  };
  for (const auto& start : starts) {
    RawHttpClient client(port_);
    client.send(start + "Host: x\r\nContent-Length: " + std::to_string(smuggled.size()) + "\r\n\r\n" + smuggled);
    EXPECT_GE(client.receive().status, 400) << start;
    EXPECT_TRUE(client.isEnded()) << start;
  }
  EXPECT_TRUE(rig_.tree().empty());
}

TEST_F(HttpServerTest, ABodyOfTheApiHasABound) {
  const std::string body(MAX_API_BODY + 1, ' ');
  EXPECT_EQ(once("POST", "/vondle/api/folders", keyHeader(), body).status, 413);
  std::string longest = R"({"name":"x","path":""})";
  longest.resize(MAX_API_BODY, ' ');
  EXPECT_EQ(once("POST", "/vondle/api/folders", keyHeader(), longest).status, 200);
}

TEST_F(HttpServerTest, ChunkedBodiesAreTakenByTheApiOnly) {
  RawHttpClient client(port_);
  client.send("POST /vondle/api/folders HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n" + keyHeader() +
              "\r\n10\r\n{\"name\":\"x\",\"pat\r\n6\r\nh\":\"\"}\r\n0\r\n\r\n");
  EXPECT_EQ(client.receive().status, 200);
  RawHttpClient second(port_);
  const auto target = targetOf(rig_.target("", "f", 5).text("upload_url"));
  second.send("PUT " + target + " HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n");
  EXPECT_EQ(second.receive().status, 411);
}

TEST_F(HttpServerTest, RequestsThatMakeNoSenseAreRefused) {
  EXPECT_EQ(once("GET", "/").status, 404);
  EXPECT_EQ(once("GET", "/vondle/nothing").status, 403);
  EXPECT_EQ(once("DELETE", "/vondle/contents/x").status, 405);
  EXPECT_EQ(once("OPTIONS", "/vondle/api/browse", keyHeader()).status, 405);
  EXPECT_EQ(once("GET", "/vondle/api/" + std::string(600, 'a'), keyHeader()).status, 414);
  EXPECT_EQ(once("GET", "/vondle/contents/../../metadata.db").status, 403);
  EXPECT_EQ(once("NONSENSE", "/").status, 400);
  RawHttpClient client(port_);
  client.send("nonsense\r\n\r\n");
  EXPECT_EQ(client.receive().status, 400);
  EXPECT_TRUE(client.isEnded());
}

TEST_F(HttpServerTest, TheAccountKeyIsNotTakenByContents) {
  rig_.makeFile("f", "x");
  EXPECT_EQ(once("GET", downloadTarget("f"), keyHeader()).status, 400);
}

TEST_F(HttpServerTest, StoppingCutsConnectionsThatHang) {
  const auto target = targetOf(rig_.target("", "f", 5).text("upload_url"));
  RawHttpClient sending(port_);
  sending.send("PUT " + target + " HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n\r\nhel");
  RawHttpClient idle(port_);
  idle.request("GET", "/");
  stop();
  EXPECT_TRUE(idle.isEnded());
  EXPECT_EQ(rig_.storedFiles(), 0U);
}

TEST_F(HttpServerTest, APortThatIsTakenIsAnError) {
  HttpServer other({.port = port_}, rig_.api(), rig_.contentHandlers());
  const auto bound = other.bind();
  ASSERT_FALSE(bound);
  EXPECT_THAT(bound.error().localizedDescription(), HasSubstr(std::to_string(port_)));
}

TEST_F(HttpServerTest, ManyClientsAtOnceLoseNothing) {
  constexpr int CLIENTS = 8;
  constexpr int EACH = 10;
  std::vector<std::thread> clients;
  for (int c = 0; c < CLIENTS; ++c)
    clients.emplace_back([this, c] {
      RawHttpClient client(port_);
      for (int i = 0; i < EACH; ++i) {
        const auto name = "c" + std::to_string(c) + "-" + std::to_string(i);
        const auto reply = client.request(
            "POST", "/vondle/api/upload-urls", keyHeader(),
            R"({"path":"","files":[{"filename":")" + name + R"(","size":)" + std::to_string(name.size()) + "}]}");
        const auto answer = json::parseObject(reply.body).value_or(json::Object());
        const auto* urls = json::listOfObjects(answer, "urls");
        ASSERT_TRUE(urls) << reply.body;
        const auto url = std::string(json::text(urls->front().get_object(), "upload_url").value_or(""));
        EXPECT_EQ(client.request("PUT", targetOf(url), "", name).status, 200);
        EXPECT_EQ(client.request("GET", "/vondle/api/changes?since=0&limit=5", keyHeader()).status, 200);
      }
    });
  for (auto& client : clients) client.join();
  EXPECT_EQ(rig_.tree().size(), static_cast<std::size_t>(CLIENTS * EACH));
  EXPECT_EQ(rig_.head(), CLIENTS * EACH);
  EXPECT_EQ(once("GET", downloadTarget("c3-7")).body, "c3-7");
}

}  // namespace
}  // namespace vondle::storage
