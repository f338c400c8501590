#include "base/utf8.h"
#include "fuzzing.h"
#include "service/replica/local_name.h"

namespace vondle {
namespace {

void requireUsable(std::string_view local) {
  REQUIRE(!local.empty() && local.size() <= MAX_LOCAL_NAME);
  REQUIRE(local != "." && local != "..");
  REQUIRE(!local.contains('/') && !local.contains('\0'));
  REQUIRE(isUTF8(local));
}

void fuzzFromTheServer(std::string_view name, std::string_view identifier) {
  const auto local = localName(name, identifier);
  requireUsable(local);
  REQUIRE(local == localName(name, identifier));
  if (!nameProblem(name))
    REQUIRE(local == name);
  else
    REQUIRE(local.starts_with(LOCAL_NAME_MARK));

  // The way back, unless bytes had to go.
  const auto back = serverName(local);
  if (back) {
    REQUIRE(*back == name);
    REQUIRE(local == localName(name, "another identifier"));
  } else {
    REQUIRE(name.size() * 3 + LOCAL_NAME_MARK.size() > MAX_LOCAL_NAME);
  }

  const auto first = distinctLocalName(name, identifier, 0);
  const auto second = distinctLocalName(name, identifier, 1);
  for (const auto& distinct : {first, second}) {
    requireUsable(distinct);
    REQUIRE(distinct != local);
    REQUIRE(!serverName(distinct));
  }
  REQUIRE(first != second);
}

void fuzzFromPrograms(std::string_view local) {
  const auto name = serverName(local);
  if (name) REQUIRE(localName(*name, "identifier") == local);
  REQUIRE(!name || local.size() <= MAX_LOCAL_NAME);
  if (!local.starts_with(LOCAL_NAME_MARK)) REQUIRE(name.has_value() == !nameProblem(local));
}

}  // namespace

void fuzz(std::string_view bytes) {
  const auto split = bytes.find('\xff');
  fuzzFromTheServer(bytes, bytes);
  if (split != std::string_view::npos) fuzzFromTheServer(bytes.substr(0, split), bytes.substr(split + 1));
  fuzzFromPrograms(bytes);
  fuzzFromPrograms(std::string(LOCAL_NAME_MARK).append(bytes));
}

}  // namespace vondle
