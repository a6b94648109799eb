// What is read of an answer, and where it ends.

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "vpn/Common/IP/AnswerReader.h"

namespace {

/// What is read of a text in pieces of a size, after which the peer closes if it can.
struct Read {
  Read(const std::string& text, std::size_t size, bool closes) {
    for (std::size_t i = 0; i < text.size(); i += size) {
      reader.take(std::string_view(text).substr(i, size));
    }
    isWhole = reader.isWhole();
    if (closes && reader.code() == 0 && !reader.isHeadComplete()) {
      reader.takeEnd();
    }
  }
  AnswerReader reader{true};
  bool isWhole;
};

const std::string Ok = "HTTP/1.1 200 OK\r\n";
const std::string Chunked = Ok + "Transfer-Encoding: chunked\r\n\r\n";

TEST(AnswerReader, TellsCodeStatusAndLocationHoweverTheAnswerIsCut) {
  struct {
    std::string text;
    unsigned int code, status;
    bool isWhole = false;
    std::string location = "";
  } const cases[] = {
      {Ok + "Content-Length: 2\r\n\r\nok", 0, 200, true},
      {Ok + "Content-Length: +2\r\ncontent-length:\t2 \r\n\r\nok", 0, 200, true},
      {Ok + "Content-Length: 2\r\n\r\no", 0, 200},
      {Ok + "Content-Length: 2\r\n\r\nok!", 0, 200},
      {Ok + "Content-Length: 2\r\nContent-Length: 3\r\n\r\nok!", 0, 200},
      {Ok + "Content-Length: 2x\r\n\r\nok", 0, 200},
      {Ok + "Content-Length: 99999999999999999999\r\n\r\nok", 0, 200},
      {Ok + "Content-Length: -2\r\n\r\nok", CURLE_WEIRD_SERVER_REPLY, 200},
      {Ok + "Content-Length: 2\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", 0, 200},
      {Ok + "Connection: x, CLOSE\r\nContent-Length: 0\r\n\r\n", 0, 200},
      {Ok + "\r\n", 0, 200},
      {Chunked + "3;x\r\nabc\r\n0\r\nA: b\r\n\r\n", 0, 200, true},
      {Chunked + "3\nabc\n0\n\n", 0, 200, true},
      {Chunked + "3\r\nabcd\r\n0\r\n\r\n", 0, 200},
      {Chunked + "-3\r\nabc\r\n0\r\n\r\n", 0, 200},
      {Chunked + "0\r\nA\r\n\r\n", 0, 200},
      {Chunked + "ffffffffffffffffff\r\n", 0, 200},
      {"HTTP/1.1 204 N\r\nContent-Length: x\r\n\r\n", 0, 204, true},
      {"HTTP/1.0 200 N\r\nContent-Length: 0\r\n\r\n", 0, 200},
      {"HTTP/1.0 200 N\r\nConnection: keep-alive\r\nContent-Length: 0\r\n\r\n", 0, 200, true},
      {"HTTP/1.1 103 E\r\nLocation: /e\r\n\r\nHTTP/1.1 204\n\n", 0, 204, true},
      {"HTTP/1.1 302 F\r\nlocation:  /a \r\n\tb\r\nLocation: /c\r\n\r\n", 0, 302, false, "/a b"},
      {"HTTP/1.1 101 S\r\n\r\n", 0, 101},
      {Ok + "Server: te", 0, 200},
      {"HTTP/1.1 100 C\r\n\r\n", CURLE_GOT_NOTHING, 100},
      {"HTTP/1.1 20", CURLE_GOT_NOTHING, 0},
      {Ok + "no field\r\n\r\n", CURLE_WEIRD_SERVER_REPLY, 200},
      {Ok + " a: b\r\n\r\n", CURLE_WEIRD_SERVER_REPLY, 200},
      {Ok + std::string("a: \0\r\n\r\n", 8), CURLE_WEIRD_SERVER_REPLY, 200},
      {"HTTP/2 200 OK\r\n\r\n", CURLE_UNSUPPORTED_PROTOCOL, 0},
      {"http/1.1 200 OK\r\n\r\n", CURLE_UNSUPPORTED_PROTOCOL, 0},
      {"HTTP/1.1 099 OK\r\n\r\n", CURLE_UNSUPPORTED_PROTOCOL, 0},
      {"HTTP/1.1 2000 OK\r\n\r\n", CURLE_UNSUPPORTED_PROTOCOL, 0},
      {"SSH", CURLE_UNSUPPORTED_PROTOCOL, 0},
      {Ok + "X: " + std::string(102400, 'x'), CURLE_WRITE_ERROR, 200},
  };
  for (const auto& each : cases) {
    for (const std::size_t size : {each.text.size(), std::size_t{7}, std::size_t{1}}) {
      SCOPED_TRACE(each.text.substr(0, 100));
      Read read(each.text, size, true);
      EXPECT_EQ(read.reader.code(), each.code);
      EXPECT_EQ(read.reader.status(), each.status);
      EXPECT_EQ(read.isWhole, each.isWhole);
      EXPECT_EQ(read.reader.takeLocation(), each.location);
    }
  }
}

}  // namespace
