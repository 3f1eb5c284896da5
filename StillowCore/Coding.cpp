#include "StillowCore/Coding.hpp"

namespace stillow::core {

std::string describe(const DecodingError& error) {
  return error.path.empty() ? error.description : error.path + ": " + error.description;
}

namespace coding {

namespace {

using Kind = JSONDocument::Kind;

std::string_view foundName(Kind kind) noexcept {
  switch (kind) {
    case Kind::null:
      return "null";
    case Kind::boolean:
      return "bool";
    case Kind::number:
      return "number";
    case Kind::string:
      return "a string";
    case Kind::array:
      return "an array";
    case Kind::object:
      return "a dictionary";
  }
  return "null";
}

DecodingError nullValue(std::string_view what) {
  return {
      DecodingError::Kind::valueNotFound, {}, std::string(what) + " -- found null value instead"};
}

}  // namespace

DecodingError corrupted(std::string description) {
  return {DecodingError::Kind::dataCorrupted, {}, std::move(description)};
}

void prefixPath(DecodingError& error, std::string_view step) {
  const bool needsDot = !error.path.empty() && error.path.front() != '[';
  error.path.insert(0, std::string(step) + (needsDot ? "." : ""));
}

std::string indexStep(std::size_t index) { return "[" + std::to_string(index) + "]"; }

DecodingError missingKey(std::string_view name) {
  return {DecodingError::Kind::keyNotFound,
          {},
          "No value associated with key CodingKeys(stringValue: \"" + std::string(name) +
              "\", intValue: nil) (\"" + std::string(name) + "\")."};
}

std::uint32_t Reader::laterMember(const Members& members, std::string_view name) const noexcept {
  for (std::uint32_t key = members.next; key < members.end; key = document_.end(key + 1)) {
    if (document_.text(key) == name) return key + 1;
  }
  return 0;
}

DecodingError Reader::wrongType(std::uint32_t index, std::string_view expected) const {
  const Kind found = document_.kind(index);
  return {DecodingError::Kind::typeMismatch,
          {},
          "Expected to decode " + std::string(expected) + " but found " +
              std::string(foundName(found)) + " instead."};
}

DecodingError Reader::noObject(std::uint32_t index) const {
  if (document_.kind(index) == Kind::null) return nullValue("Cannot get keyed decoding container");
  return wrongType(index, "Dictionary<String, Any>");
}

DecodingError Reader::noArray(std::uint32_t index) const {
  if (document_.kind(index) == Kind::null) {
    return nullValue("Cannot get unkeyed decoding container");
  }
  return wrongType(index, "Array<Any>");
}

DecodingError Reader::noString(std::uint32_t index) const {
  if (document_.kind(index) == Kind::null) return nullValue("Cannot get value of type String");
  return wrongType(index, "String");
}

std::expected<std::string_view, DecodingError> Reader::readText(std::uint32_t index) const {
  if (document_.kind(index) != Kind::string) return std::unexpected(noString(index));
  return document_.text(index);
}

std::expected<bool, DecodingError> Reader::readBool(std::uint32_t index) const {
  const auto node = document_.node(index);
  if (node.kind == Kind::boolean) return node.truth;
  // Unlike all other types a missing boolean is a mismatch, not an absent value.
  return std::unexpected(wrongType(index, "Bool"));
}

std::expected<double, DecodingError> Reader::readDouble(std::uint32_t index) const {
  const auto node = document_.node(index);
  if (node.kind == Kind::null) return std::unexpected(nullValue("Cannot get value of type Double"));
  if (node.kind != Kind::number) return std::unexpected(wrongType(index, "Double"));
  const auto value = json::parseDouble(node.text);
  if (!value) return std::unexpected(corrupted(value.error()));
  return *value;
}

std::expected<std::int64_t, DecodingError> Reader::readInteger(std::uint32_t index) const {
  const auto node = document_.node(index);
  if (node.kind == Kind::null) return std::unexpected(nullValue("Cannot get value of type Int64"));
  if (node.kind != Kind::number) return std::unexpected(wrongType(index, "Int64"));
  const auto value = json::parseInteger(node.text);
  if (!value) return std::unexpected(corrupted(value.error()));
  return *value;
}

void Writer::writeDouble(double value) {
  if (json::appendDouble(text, value)) return;
  text.append("null");
  if (!error) {
    error =
        EncodingError{"Unable to encode Double." + json::description(value) + " directly in JSON."};
  }
}

}  // namespace coding
}  // namespace stillow::core
