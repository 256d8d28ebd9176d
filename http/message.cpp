#include "http/message.h"

#include "corvax/format.h"

#include <algorithm>
#include <charconv>
#include <map>

namespace Http {

namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kHeadEnd = "\r\n\r\n";
constexpr size_t kMethodAndVersionBytes = 64; // enough for the request line without its target

/// By lower-case name; the values of a repeated header are joined by ", ".
using Headers = std::map<std::string, std::string, std::less<>>;

// ASCII only: parsing must not depend on the locale.
char ToLower(char c)
{
   return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string ToLower(std::string_view text)
{
   std::string lower(text);
   std::ranges::transform(lower, lower.begin(), [](char c) { return ToLower(c); });
   return lower;
}

bool IsAlphanumeric(char c)
{
   return (c >= '0' && c <= '9') || (ToLower(c) >= 'a' && ToLower(c) <= 'z');
}

bool IsToken(std::string_view text)
{
   static constexpr std::string_view kMarks = "!#$%&'*+-.^_`|~";
   return !text.empty() && std::ranges::all_of(text, [](char c) {
      return IsAlphanumeric(c) || kMarks.find(c) != kMarks.npos;
   });
}

bool IsVisible(char c)
{
   return c > ' ' && c < '\x7f';
}

bool IsControl(char c)
{
   return (c >= '\0' && c < ' ') || c == '\x7f';
}

std::string_view Trim(std::string_view text)
{
   const size_t first = text.find_first_not_of(" \t");
   if (first == text.npos) {
      return {};
   }
   return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

/// Returns the text before the separator, and removes both from `text`.
std::string_view TakeUntil(std::string_view& text, std::string_view separator)
{
   const size_t at = text.find(separator);
   const std::string_view first = text.substr(0, at);
   text.remove_prefix(at == text.npos ? text.size() : at + separator.size());
   return first;
}

void ParseTarget(std::string_view target, RequestHead& head)
{
   if (target.size() > kMaxTargetBytes) {
      throw Refusal(414, Corvax::Format("The URI is longer than %1 bytes", kMaxTargetBytes));
   }
   constexpr std::string_view kScheme = "http://";
   if (ToLower(target.substr(0, kScheme.size())) == kScheme) { // the form for proxies
      target.remove_prefix(std::min(target.size(), target.find('/', kScheme.size())));
   }
   if (!target.starts_with('/') || !std::ranges::all_of(target, IsVisible)) {
      throw Refusal(400, "The URI is not a path");
   }
   head.path = TakeUntil(target, "?");
   head.query = target;
}

void ParseRequestLine(std::string_view line, RequestHead& head)
{
   head.method = TakeUntil(line, " ");
   const std::string_view target = TakeUntil(line, " ");
   if (!IsToken(head.method) || !line.starts_with("HTTP/")) {
      throw Refusal(400, "The request line is malformed");
   }
   if (line != "HTTP/1.1" && line != "HTTP/1.0") {
      throw Refusal(505, "Only HTTP/1.1 and HTTP/1.0 are supported");
   }
   head.close = line == "HTTP/1.0";
   ParseTarget(target, head);
}

void ParseHeader(std::string_view line, Headers& headers)
{
   const size_t colon = line.find(':');
   const std::string_view name = line.substr(0, colon);
   if (colon == line.npos || !IsToken(name)) { // includes continuation lines, which are obsolete
      throw Refusal(400, "A header is malformed");
   }
   const std::string_view value = Trim(line.substr(colon + 1));
   if (std::ranges::any_of(value, [](char c) { return IsControl(c) && c != '\t'; })) {
      throw Refusal(400, "A header contains control characters");
   }
   const auto [place, added] = headers.try_emplace(ToLower(name), value);
   if (!added) {
      place->second.append(", ").append(value);
   }
}

std::string_view Get(const Headers& headers, std::string_view name)
{
   const auto found = headers.find(name);
   return found == headers.end() ? std::string_view() : found->second;
}

uint64_t ParseContentLength(std::string_view text)
{
   uint64_t length = 0;
   const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), length);
   if (error == std::errc::result_out_of_range) {
      throw Refusal(413, "The body is too long");
   }
   if (error != std::errc() || end != text.data() + text.size()) {
      throw Refusal(400, "The Content-Length is not a number");
   }
   return length;
}

bool HasToken(std::string_view list, std::string_view token)
{
   while (!list.empty()) {
      if (ToLower(Trim(TakeUntil(list, ","))) == token) {
         return true;
      }
   }
   return false;
}

/// Whether a weight such as ";q=0.000" excludes the coding.
bool IsWeightZero(std::string_view parameters)
{
   while (!parameters.empty()) {
      const std::string parameter = ToLower(Trim(TakeUntil(parameters, ";")));
      if (parameter.starts_with("q=")) {
         return parameter.find_first_not_of("0.", 2) == parameter.npos;
      }
   }
   return false;
}

bool AcceptsGzip(std::string_view acceptEncoding)
{
   bool anyCoding = false;
   while (!acceptEncoding.empty()) {
      std::string_view parameters = TakeUntil(acceptEncoding, ",");
      const std::string coding = ToLower(Trim(TakeUntil(parameters, ";")));
      if (coding == "gzip" || coding == "x-gzip") {
         return !IsWeightZero(parameters);
      }
      anyCoding = anyCoding || (coding == "*" && !IsWeightZero(parameters));
   }
   return anyCoding;
}

/// How the body is sent; Refusal for ways that are not supported.
void ApplyBodyHeaders(const Headers& headers, RequestHead& head)
{
   if (headers.contains("transfer-encoding")) {
      throw Refusal(411, "Transfer-Encoding is not supported; send a Content-Length");
   }
   if (headers.contains("content-length")) {
      head.contentLength = ParseContentLength(Get(headers, "content-length"));
   }
   const std::string coding = ToLower(Get(headers, "content-encoding"));
   if (!coding.empty() && coding != "identity") {
      throw Refusal(415, "An encoded body is not supported");
   }
   head.contentType = Get(headers, "content-type");
   const std::string expectation = ToLower(Get(headers, "expect"));
   if (!expectation.empty() && expectation != "100-continue") {
      throw Refusal(417, "The only supported expectation is 100-continue");
   }
   // An HTTP/1.0 client does not understand the interim response.
   head.expectsContinue = !expectation.empty() && !head.close;
}

void ApplyHeaders(const Headers& headers, RequestHead& head)
{
   const std::string_view host = Get(headers, "host");
   if ((!head.close && !headers.contains("host")) || host.find(',') != host.npos) {
      throw Refusal(400, "A request needs one Host header");
   }
   ApplyBodyHeaders(headers, head);
   head.accept = Get(headers, "accept");
   head.acceptsGzip = AcceptsGzip(Get(headers, "accept-encoding"));
   head.close = head.close || HasToken(Get(headers, "connection"), "close");
}

int HexDigit(char c)
{
   c = ToLower(c);
   if (c >= '0' && c <= '9') {
      return c - '0';
   }
   return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

char DecodeEscape(std::string_view escape)
{
   const int high = escape.size() > 1 ? HexDigit(escape[1]) : -1;
   const int low = escape.size() > 2 ? HexDigit(escape[2]) : -1;
   if (high < 0 || low < 0) {
      throw Refusal(400, "The URI contains a malformed escape");
   }
   if (high == 0 && low == 0) {
      throw Refusal(400, "The URI contains a NUL byte");
   }
   return static_cast<char>(high * 16 + low);
}

} // namespace

Refusal::Refusal(int status, std::string message, Fields headers)
   : Exception(std::move(message)), _status(status), _headers(std::move(headers))
{
}
Refusal::~Refusal() = default;

std::optional<size_t> FindHeadEnd(std::string_view received, size_t from)
{
   const size_t lineSize = std::min(received.find('\n'), received.size());
   if (lineSize > kMaxTargetBytes + kMethodAndVersionBytes) {
      throw Refusal(414, Corvax::Format("The URI is longer than %1 bytes", kMaxTargetBytes));
   }
   if (lineSize == received.size()) {
      return std::nullopt;
   }
   if (lineSize == 0 || received[lineSize - 1] != '\r') {
      throw Refusal(400, "The request line does not end with CR LF");
   }
   // The end may start within the bytes searched before.
   const size_t end =
      received.find(kHeadEnd, from < kHeadEnd.size() ? 0 : from - kHeadEnd.size() + 1);
   if (std::min(end, received.size()) > lineSize + kMaxHeaderBytes) {
      throw Refusal(431, Corvax::Format("The headers exceed %1 bytes", kMaxHeaderBytes));
   }
   return end == received.npos ? std::nullopt : std::optional(end + kHeadEnd.size());
}

RequestHead ParseHead(std::string_view head)
{
   RequestHead parsed;
   head.remove_suffix(kLineEnd.size()); // the empty line
   ParseRequestLine(TakeUntil(head, kLineEnd), parsed);
   Headers headers;
   for (size_t count = 0; !head.empty(); ++count) {
      if (count == kMaxHeaders) {
         throw Refusal(431, Corvax::Format("There are more than %1 headers", kMaxHeaders));
      }
      ParseHeader(TakeUntil(head, kLineEnd), headers);
   }
   ApplyHeaders(headers, parsed);
   return parsed;
}

std::string DecodePercent(std::string_view text, bool plusIsBlank)
{
   std::string decoded;
   decoded.reserve(text.size());
   for (size_t i = 0; i < text.size(); ++i) {
      if (text[i] == '%') {
         decoded += DecodeEscape(text.substr(i, 3));
         i += 2;
      } else {
         decoded += text[i] == '+' && plusIsBlank ? ' ' : text[i];
      }
   }
   return decoded;
}

std::vector<std::string> DecodePath(std::string_view path)
{
   std::vector<std::string> segments;
   size_t from = 0;
   while (from < path.size()) {
      const size_t end = std::min(path.find('/', from + 1), path.size());
      segments.push_back(DecodePercent(path.substr(from + 1, end - from - 1), false));
      from = end;
   }
   return segments;
}

Fields DecodeQuery(std::string_view query)
{
   Fields fields;
   while (!query.empty()) {
      std::string_view value = TakeUntil(query, "&");
      if (!value.empty()) {
         const std::string_view name = TakeUntil(value, "=");
         fields.emplace_back(DecodePercent(name, true), DecodePercent(value, true));
      }
   }
   return fields;
}

} // namespace Http
