#include "http/responseWriter.h"

#include <httplib.h>

#include <algorithm>
#include <cstring>
#include <string_view>

namespace Http {

namespace {

constexpr size_t kMinGzipBytes = 1024; // below that, compressing costs more than sending

/// A connection whose input and output are strings.
class MemoryStream : public httplib::Stream {
public:
   using Stream::write;

   explicit MemoryStream(std::string_view input) : _input(input) {}

   bool is_readable() const override { return true; }
   bool is_writable() const override { return true; }
   ssize_t read(char* buffer, size_t size) override
   {
      size = std::min(size, _input.size());
      std::memcpy(buffer, _input.data(), size);
      _input.remove_prefix(size);
      return static_cast<ssize_t>(size);
   }
   ssize_t write(const char* data, size_t size) override
   {
      _output.append(data, size);
      return static_cast<ssize_t>(size);
   }
   void get_remote_ip_and_port(std::string& /*ip*/, int& /*port*/) const override {}
   void get_local_ip_and_port(std::string& /*ip*/, int& /*port*/) const override {}
   socket_t socket() const override { return INVALID_SOCKET; }

   std::string TakeOutput() { return std::move(_output); }

private:
   std::string_view _input;
   std::string _output;
};

} // namespace

class ResponseWriter::Library : public httplib::Server {
public:
   Library()
   {
      set_pre_routing_handler([this](const httplib::Request&, httplib::Response& response) {
         Fill(response);
         return HandlerResponse::Handled;
      });
      // The library adds these headers, but this server does not act by them.
      set_post_routing_handler([](const httplib::Request&, httplib::Response& response) {
         response.headers.erase("Accept-Ranges");
         response.headers.erase("Keep-Alive");
         if (response.status == 204) {
            response.headers.erase("Content-Length");
         }
      });
   }

   std::string Write(Response response, const Form& form)
   {
      // The library gets a request of our own. It must not see the client's headers: it would parse
      // ranges with a regular expression, prefer Brotli at its slowest, and take "gzip;q=0" as
      // consent.
      std::string request = form.withoutBody ? "HEAD" : "GET";
      request += " / HTTP/1.1\r\n";
      if (form.gzip && response.body.size() >= kMinGzipBytes) {
         request += "Accept-Encoding: gzip\r\n";
      }
      request += "\r\n";
      _response = std::move(response);
      MemoryStream stream(request);
      bool closed = false;
      process_request(stream, form.close, closed, nullptr);
      return stream.TakeOutput();
   }

private:
   void Fill(httplib::Response& response)
   {
      response.status = _response.status;
      if (response.status == 204 || response.status == 304) {
         _response.body.clear(); // the client would read it as the next response
      }
      if (_response.body.size() >= kMinGzipBytes) {
         response.set_header("Vary", "Accept-Encoding");
      }
      for (const auto& [name, value] : _response.headers) {
         response.set_header(name, value);
      }
      if (!_response.body.empty()) {
         response.set_header("Content-Type", _response.contentType);
      }
      response.body = std::move(_response.body);
   }

   Response _response; ///< being written
};

ResponseWriter::ResponseWriter() : _library(std::make_unique<Library>()) {}
ResponseWriter::~ResponseWriter() = default;

std::string ResponseWriter::Write(Response response, const Form& form)
{
   return _library->Write(std::move(response), form);
}

} // namespace Http
