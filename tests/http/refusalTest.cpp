#include "tests/http/serverFixture.h"

namespace {

struct RefusalRow {
   const char* name;
   int status;
   bool closes;
   std::string request;
};

const std::string kLine = "GET /text HTTP/1.1\r\n";
const std::string kStart = kLine + "Host: a\r\n"; // of a request whose headers go on
const std::string kPost = "POST /echo HTTP/1.1\r\nHost: a\r\n";

std::string WithHeaders(int count)
{
   std::string request = kStart;
   for (int i = 1; i < count; ++i) {
      request += "A: b\r\n";
   }
   return request + "\r\n";
}

const RefusalRow kRows[] = {
   // Unknown routes and malformed paths keep the connection.
   {"unknown path", 404, false, "GET /texts HTTP/1.1\r\nHost: a\r\n\r\n"},
   {"empty parameter", 404, false, "GET /p//q/b HTTP/1.1\r\nHost: a\r\n\r\n"},
   {"other method", 405, false, "POST /text HTTP/1.1\r\nHost: a\r\n\r\n"},
   {"unknown method", 501, false, "FETCH /text HTTP/1.1\r\nHost: a\r\n\r\n"},
   {"NUL in the path", 400, false, "GET /te%00xt HTTP/1.1\r\nHost: a\r\n\r\n"},
   {"bad escape", 400, false, "GET /te%4 HTTP/1.1\r\nHost: a\r\n\r\n"},
   {"bad escape in the query", 400, false, "GET /text?a=%zz HTTP/1.1\r\nHost: a\r\n\r\n"},
   // Malformed request lines and headers close it.
   {"no version", 400, true, "GET /text\r\n\r\n"},
   {"other version", 505, true, "GET /text HTTP/2.0\r\n\r\n"},
   {"no path", 400, true, "GET text HTTP/1.1\r\nHost: a\r\n\r\n"},
   {"blank in the path", 400, true, "GET /te xt HTTP/1.1\r\nHost: a\r\n\r\n"},
   {"line feed alone", 400, true, "GET /text HTTP/1.1\n\n"},
   {"line feed alone later", 400, true, kStart + "A: b\nC: d\r\n\r\n"},
   {"no host", 400, true, kLine + "\r\n"},
   {"two hosts", 400, true, kStart + "Host: b\r\n\r\n"},
   {"continued header", 400, true, kStart + "A: b\r\n c\r\n\r\n"},
   {"blank before the colon", 400, true, kStart + "A : b\r\n\r\n"},
   {"NUL in a header", 400, true, kStart + "A: b" + std::string(1, '\0') + "\r\n\r\n"},
   // So do bodies that are not supported,
   {"body of 100", 200, false, kPost + "Content-Length: 100\r\n\r\n" + std::string(100, 'b')},
   {"body of 101", 413, true, kPost + "Content-Length: 101\r\n\r\n"},
   {"long body sent nevertheless", 413, true,
    kPost + "Content-Length: 1000000\r\n\r\n" + std::string(1000000, 'b')},
   {"length of 2^64", 413, true, kPost + "Content-Length: 18446744073709551616\r\n\r\n"},
   {"negative length", 400, true, kPost + "Content-Length: -1\r\n\r\n"},
   {"two lengths", 400, true, kPost + "Content-Length: 1\r\nContent-Length: 1\r\n\r\nb"},
   {"chunks", 411, true, kPost + "Transfer-Encoding: chunked\r\n\r\n0\r\n\r\n"},
   {"compressed body", 415, true, kPost + "Content-Encoding: gzip\r\n\r\n"},
   {"other expectation", 417, true, kPost + "Expect: more\r\n\r\n"},
   // and what is beyond the limits of the URI and the headers.
   {"URI of 8 KiB", 404, false, "GET /" + std::string(8191, 'a') + " HTTP/1.1\r\nHost: a\r\n\r\n"},
   {"URI too long", 414, true, "GET /" + std::string(8192, 'a') + " HTTP/1.1\r\nHost: a\r\n\r\n"},
   {"URI without end", 414, true, std::string(9000, 'a')},
   {"headers of 16 KiB", 200, false, kStart + "A: " + std::string(16371, 'a') + "\r\n\r\n"},
   {"headers without end", 431, true, kStart + "A: " + std::string(16384, 'a')},
   {"100 headers", 200, false, WithHeaders(100)},
   {"101 headers", 431, true, WithHeaders(101)},
};

TEST_F(HttpServerTest, RefusalsKeepTheConnectionOnlyIfItIsInStep)
{
   Start({.maxBodyBytes = 100});
   for (const RefusalRow& row : kRows) {
      SCOPED_TRACE(row.name);
      Client client(_port);
      const std::string response = client.Ask(row.request);
      EXPECT_EQ(StatusOf(response), row.status);
      if (row.status != 200) {
         EXPECT_TRUE(BodyOf(response).starts_with("E" + std::to_string(row.status) + " "));
      }
      EXPECT_EQ(response.find("Allow: GET, HEAD, OPTIONS\r\n") != response.npos, row.status == 405);
      EXPECT_EQ(response.find("Connection: close\r\n") != response.npos, row.closes);
      if (row.closes) {
         EXPECT_EQ(client.ReceiveToEnd(), "");
      } else {
         EXPECT_EQ(BodyOf(client.Ask(kGet)), "text");
      }
   }
}

} // namespace
