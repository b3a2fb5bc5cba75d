#include "store/serverurl.h"

#include <algorithm>
#include <vector>

#include "store/serverstore.h"

namespace zel {

namespace {

constexpr std::string_view schemes[] = {"postgresql://", "postgres://"};
constexpr std::string_view defaultSchema = "povzel";
constexpr std::size_t longestName = 63;
constexpr std::string_view secrets[] = {"password", "sslpassword"};

std::size_t schemeOf(std::string_view url) {
  for (const std::string_view scheme : schemes) {
    if (url.starts_with(scheme)) return scheme.size();
  }
  return 0;
}

int digitOf(char letter) {
  if (letter >= '0' && letter <= '9') return letter - '0';
  const char lower = static_cast<char>(letter | 0x20);
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// What is no hexadecimal number stays as it is.
std::string decoded(std::string_view text) {
  std::string result;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const bool isCode = text[at] == '%' && at + 2 < text.size() && digitOf(text[at + 1]) >= 0 &&
                        digitOf(text[at + 2]) >= 0;
    if (!isCode) {
      result += text[at];
      continue;
    }
    result += static_cast<char>(16 * digitOf(text[at + 1]) + digitOf(text[at + 2]));
    at += 2;
  }
  return result;
}

struct Parameter {
  std::string_view text;  // as it stands
  std::string key;
  std::string value;
};

struct Parts {
  std::string_view scheme;
  std::string_view user;      // up to the sign @, which is not in it
  std::string_view password;  // behind the colon
  bool hasUser = false;
  std::string_view rest;  // up to the query
  std::vector<Parameter> query;
};

Parts partsOf(std::string_view url) {
  Parts parts;
  parts.scheme = url.substr(0, schemeOf(url));
  url.remove_prefix(parts.scheme.size());
  // A password with a slash in it is none for libpq, but one all the same.
  const std::size_t slash = url.find('/');
  std::size_t sign = url.substr(0, slash).rfind('@');
  if (sign == std::string_view::npos) {
    const std::size_t late = url.substr(0, url.find('?')).rfind('@');
    if (url.substr(0, slash).find(':') != std::string_view::npos) sign = late;
  }
  if (sign != std::string_view::npos) {
    parts.hasUser = true;
    parts.user = url.substr(0, sign);
    const std::size_t colon = parts.user.find(':');
    if (colon != std::string_view::npos) {
      parts.password = parts.user.substr(colon + 1);
      parts.user = parts.user.substr(0, colon);
    }
    url.remove_prefix(sign + 1);
  }
  const std::size_t mark = url.find('?');
  parts.rest = url.substr(0, mark);
  while (mark != std::string_view::npos) {
    const std::size_t begin = parts.query.empty() ? mark + 1 : 0;
    if (parts.query.empty()) url.remove_prefix(begin);
    const std::size_t end = std::min(url.find('&'), url.size());
    const std::string_view text = url.substr(0, end);
    const std::size_t equals = std::min(text.find('='), text.size());
    parts.query.push_back({text, decoded(text.substr(0, equals)),
                           decoded(text.substr(std::min(equals + 1, text.size())))});
    if (end == url.size()) break;
    url.remove_prefix(end + 1);
  }
  return parts;
}

bool isSecret(const Parameter& parameter) {
  return std::find(std::begin(secrets), std::end(secrets), parameter.key) != std::end(secrets);
}

template <typename IsLeftOut>
std::string queryWithout(const Parts& parts, IsLeftOut isLeftOut) {
  std::string text;
  for (const Parameter& parameter : parts.query) {
    if (isLeftOut(parameter)) continue;
    text += (text.empty() ? '?' : '&') + std::string(parameter.text);
  }
  return text;
}

}  // namespace

bool isServerUrl(std::string_view name) {
  return schemeOf(name) != 0;
}

std::string shownUrl(std::string_view url) {
  const Parts parts = partsOf(url);
  return std::string(parts.scheme) + std::string(parts.user) + (parts.hasUser ? "@" : "") +
         std::string(parts.rest) + queryWithout(parts, isSecret);
}

bool hasPassword(std::string_view url) {
  const Parts parts = partsOf(url);
  return !parts.password.empty() || std::any_of(parts.query.begin(), parts.query.end(), isSecret);
}

ServerUrl splitUrl(std::string_view url) {
  const Parts parts = partsOf(url);
  const auto isSchema = [](const Parameter& parameter) { return parameter.key == "schema"; };
  ServerUrl result{"", std::string(defaultSchema)};
  for (const Parameter& parameter : parts.query) {
    if (isSchema(parameter)) result.schema = parameter.value;
  }
  const std::string& schema = result.schema;
  if (schema.empty() || schema.size() > longestName || schema.find('\0') != std::string::npos) {
    throw Failure(ErrLoginDenied, "the schema in " + shownUrl(url) +
                                      " is no name that a server's schema can have: one of 1 to 63 "
                                      "bytes");
  }
  const auto whole = static_cast<std::size_t>(parts.rest.data() + parts.rest.size() - url.data());
  result.url = std::string(url.substr(0, whole)) + queryWithout(parts, isSchema);
  return result;
}

}  // namespace zel
