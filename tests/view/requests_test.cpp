// Requests to kinetrel-view, honest and hostile.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/wait_until.h"
#include "tests/view/viewed_slot.h"

namespace kinetrel::test {
namespace {

using Requests = ViewedSlot;

bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST_F(Requests, EachGetsItsStatus) {
  Serve({"--allow-origin", "https://lab.example"});
  const std::string slot = Slot();
  const std::string own = "Host: 127.0.0.1:" + std::to_string(port_) + "\r\n";
  const std::string upgrade =
      "Connection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
      "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n";
  struct Row {
    std::string line;
    std::string fields;
    int status;
  };
  const std::vector<Row> rows = {
      {"GET / HTTP/1.1", own, 200},
      {"GET /?theme=dark HTTP/1.1", own, 200},
      {"GET /index.html HTTP/1.1", own, 200},
      {"GET /api/trackers HTTP/1.1", own, 200},
      {"GET /metrics HTTP/1.1", own, 200},
      {"GET / HTTP/1.1", "Host: localhost:9000\r\n", 200},  // through a tunnel
      {"GET / HTTP/1.1", "Host: [::1]\r\n", 200},
      {"GET " + slot + " HTTP/1.1", own, 404},  // no tracker
      {"GET /api/trackers/0 HTTP/1.1", own, 404},
      {"GET /api/trackers/17 HTTP/1.1", own, 404},
      {"GET /api/trackers/99999999999999999999/frames HTTP/1.1", own, 404},
      {"GET /../../etc/passwd HTTP/1.1", own, 404},
      {"GET /%2e%2e/etc/passwd HTTP/1.1", own, 404},
      {"GET //etc/passwd HTTP/1.1", own, 404},
      {"GET http://127.0.0.1/ HTTP/1.1", own, 400},
      {"GET / HTTP/1.1", "", 400},
      {"GET / HTTP/1.1", own + own, 400},
      {"GET / HTTP/1.1", "Host: 127.0.0.1:port\r\n", 400},
      {"GET / HTTP/1.1", own + "Content-Length: 1\r\n", 400},
      {"GET / HTTP/1.1", own + "Transfer-Encoding: chunked\r\n", 400},
      {"GET / HTTP/7", own, 400},
      {"\x16\x03\x01\x02", own, 400},
      {"POST / HTTP/1.1", own, 405},
      {"OPTIONS / HTTP/1.1", own, 405},
      {"GET " + slot + "/frames HTTP/1.1", own, 426},
      {"GET / HTTP/1.1", own + "X: " + std::string(9000, 'x') + "\r\n", 431},
      {"GET /" + std::string(9000, 'x') + " HTTP/1.1", own, 431},
      {"GET / HTTP/1.1", "Host: rebound.example\r\n", 403},
      {"GET / HTTP/1.1", "Host: 192.168.1.5:8047\r\n", 403},
      {"GET / HTTP/1.1", own + "Origin: http://evil.example\r\n", 403},
      {"GET / HTTP/1.1", own + "Origin: null\r\n", 403},
      {"GET / HTTP/1.1", own + "Origin: http://127.0.0.1:1\r\n", 403},
      {"GET / HTTP/1.1", own + "Sec-Fetch-Site: cross-site\r\nSec-Fetch-Mode: no-cors\r\n", 403},
      {"GET / HTTP/1.1", own + "Sec-Fetch-Site: cross-site\r\nSec-Fetch-Mode: navigate\r\n", 200},
      {"GET / HTTP/1.1", own + "Origin: https://lab.example\r\n", 200},
      {"GET / HTTP/1.1", own + "Origin: https://lab.example.evil\r\n", 403},
      {"GET " + slot + "/frames HTTP/1.1", own + upgrade, 101},
      {"GET " + slot + "/frames HTTP/1.1",
       own + upgrade + "Origin: http://127.0.0.1:" + std::to_string(port_) + "\r\n", 101},
      {"GET " + slot + "/frames HTTP/1.1", own + upgrade + "Origin: http://evil.example\r\n", 403},
      {"GET " + slot + "/frames HTTP/1.1", "Host: rebound.example\r\n" + upgrade, 403},
  };
  for (const Row& row : rows) {
    WebClient client = Connect();
    client.Send(row.line + "\r\n" + row.fields + "\r\n");
    const WebAnswer answer = client.Receive();
    EXPECT_EQ(answer.status, row.status) << row.line << "\n" << row.fields << answer.body;
    const bool allowed = Has(row.fields, "https://lab.example\r\n");
    EXPECT_EQ(Has(answer.head, "Access-Control-Allow-Origin"), allowed) << row.fields;
    if (row.status >= 400) {
      EXPECT_TRUE(Json::parse(answer.body).contains("error"));
      EXPECT_TRUE(client.AwaitClosed()) << row.line;
    }
  }
}

TEST_F(Requests, AnswersToHeadHaveNoBody) {
  Serve();
  WebClient client = Connect();
  const std::string rest = " / HTTP/1.1\r\nHost: localhost\r\n\r\n";
  client.Send("HEAD" + rest + "GET" + rest);  // in one packet
  const WebAnswer head = client.Receive(false);
  const WebAnswer get = client.Receive();
  EXPECT_EQ(head.head, get.head);
  EXPECT_TRUE(Has(get.body, "</html>"));
  for (const char* const field :
       {"Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self';",
        "X-Content-Type-Options: nosniff", "Cross-Origin-Resource-Policy: same-origin"}) {
    EXPECT_TRUE(Has(get.head, field)) << get.head;
  }
}

TEST_F(Requests, TokenIsAskedForWithListen) {
  Serve({"--listen", "0.0.0.0"});
  const std::string token = address_.substr(address_.find("token=") + 6);
  ASSERT_EQ(token.size(), 32U);
  const std::string cookie = "kinetrel-view-" + std::to_string(port_) + "=";
  std::string wrong = token;
  wrong.back() = wrong.back() == '0' ? '1' : '0';
  EXPECT_EQ(Get("/").status, 401);
  EXPECT_EQ(Get("/metrics?token=" + wrong).status, 401);
  EXPECT_EQ(Get("/metrics?token=" + token + "0").status, 401);
  EXPECT_EQ(Get("/", "Cookie: " + cookie + "\r\n").status, 401);
  EXPECT_EQ(Connect().Upgrade(Slot() + "/frames").status, 401);
  EXPECT_EQ(Get("/metrics", "Authorization: Bearer " + token + "\r\n").status, 200);
  EXPECT_EQ(Get("/", "Cookie: a=b; " + cookie + token + "\r\n").status, 200);
  EXPECT_EQ(Connect().Upgrade(Slot() + "/frames?token=" + token).status, 101);
  const WebAnswer page = Get("/?a=b&token=" + token);
  EXPECT_EQ(page.status, 200);
  EXPECT_TRUE(Has(page.head, "Set-Cookie: " + cookie + token + "; HttpOnly; SameSite=Strict"));
  EXPECT_EQ(Get("/?token=" + token, "Origin: http://evil.example\r\n").status, 403);
  Serve({"--listen", "0.0.0.0"});
  EXPECT_NE(address_.substr(address_.find("token=") + 6), token);
}

TEST_F(Requests, SilentClientsAreDropped) {
  Serve({"--patience", "3"});
  WebClient silent = Connect();
  WebClient half = Connect();
  half.Send("GET / HTTP/1.1\r\nHost: local");
  WebClient idle = Connect();
  EXPECT_EQ(idle.Get("/").status, 200);
  EXPECT_TRUE(silent.AwaitClosed());
  EXPECT_TRUE(half.AwaitClosed());
  EXPECT_TRUE(idle.AwaitClosed());
}

TEST_F(Requests, ConnectionsAreLimitedAndTheTrackerGoesOn) {
  ChildProcess tracker("kinetrel", Simulated(slot_));
  Serve();
  ASSERT_TRUE(WaitUntil([&] { return Get(Slot()).status == 200; }));
  std::vector<WebClient> crowd;
  for (int i = 0; i < 300; ++i) crowd.emplace_back(port_);
  std::map<int, int> counts;  // of each status
  for (WebClient& client : crowd) ++counts[client.Get("/").status];
  EXPECT_LE(counts[200], 256);
  EXPECT_GE(counts[200], 250);  // the server may just be closing the connections from before
  EXPECT_LE(counts[503], 32);
  EXPECT_GE(counts[503], 1);
  EXPECT_EQ(counts[200] + counts[503] + counts[0], 300);
  for (int i = 0; i < 2000; ++i)
    crowd[10].Send("GET /api/trackers HTTP/1.1\r\nHost: localhost\r\n\r\n");
  const Json before = Json::parse(crowd[20].Get(Slot()).body);
  EXPECT_TRUE(WaitUntil([&] {
    const Json now = Json::parse(crowd[20].Get(Slot()).body);
    EXPECT_EQ(now["tracker"]["failedReads"], 0);
    return now["frame"]["frame"] > before["frame"]["frame"].get<int>() + 10;
  }));
  crowd.clear();
  EXPECT_TRUE(WaitUntil([&] { return Get("/").status == 200; }));
}

// The browser outlives the server: with its sockets it would keep the port in use.
TEST_F(Requests, BrowserIsOpenedWithoutTheServersSockets) {
  const std::string folder = testing::TempDir() + "kinetrel-view-" + std::to_string(::getpid());
  const std::string told = folder + "/told";
  std::filesystem::create_directory(folder);
  std::ofstream(folder + "/xdg-open")
      << "#!/bin/sh\nexec 1>" << told << ".new\necho \"$1\"\nls -l /proc/$$/fd\nmv " << told
      << ".new " << told << "\n";
  std::filesystem::permissions(folder + "/xdg-open", std::filesystem::perms::owner_all);
  const char* const path = std::getenv("PATH");
  SetVariable("PATH", folder + ":" + path);
  Serve({"--open"});
  SetVariable("PATH", path);
  EXPECT_TRUE(WaitUntil([&] { return std::filesystem::exists(told); }));
  std::ostringstream text;
  text << std::ifstream(told).rdbuf();
  EXPECT_TRUE(text.str().starts_with(address_ + "\n")) << text.str();
  EXPECT_FALSE(Has(text.str(), "socket:")) << text.str();
  std::filesystem::remove_all(folder);
}

TEST_F(Requests, CommandLineIsCheckedInOneLine) {
  Serve();
  const std::vector<std::pair<std::vector<std::string>, std::string>> rows = {
      {{"--port", std::to_string(port_)}, "is in use: choose another one with --port"},
      {{"--port", "65536"}, "--port"},
      {{"--listen", "lab.example"}, "--listen: wants an address as a number"},
      {{"--listen", "192.0.2.1"}, "cannot serve 192.0.2.1"},
      {{"--allow-origin", "https://lab.example/page"}, "--allow-origin: wants an origin"},
      {{"--patience", "0"}, "--patience"},
      {{"now"}, "unknown argument 'now'"},
  };
  for (const auto& [arguments, words] : rows) {
    ChildProcess refused("kinetrel-view", arguments);
    EXPECT_EQ(refused.Wait(), 2);
    EXPECT_TRUE(refused.error().starts_with("kinetrel-view: ")) << refused.error();
    EXPECT_TRUE(Has(refused.error(), words)) << refused.error();
    EXPECT_EQ(refused.error().find('\n'), refused.error().size() - 1) << refused.error();
  }
  server_->Signal(SIGTERM);
  EXPECT_EQ(server_->Wait(), 0);
}

}  // namespace
}  // namespace kinetrel::test
