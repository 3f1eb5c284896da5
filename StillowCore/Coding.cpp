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

std::uint32_t Reader::member(std::uint32_t object, std::string_view name) const noexcept {
  const std::uint32_t end = document_.node(object).end;
  for (std::uint32_t key = object + 1; key < end; key = document_.node(key + 1).end) {
    if (document_.node(key).text == name) return key + 1;
  }
  return 0;
}

DecodingError Reader::wrongType(std::uint32_t index, std::string_view expected) const {
  const Kind found = document_.node(index).kind;
  return {DecodingError::Kind::typeMismatch,
          {},
          "Expected to decode " + std::string(expected) + " but found " +
              std::string(foundName(found)) + " instead."};
}

std::expected<void, DecodingError> Reader::expectObject(std::uint32_t index) const {
  const Kind kind = document_.node(index).kind;
  if (kind == Kind::object) return {};
  if (kind == Kind::null) return std::unexpected(nullValue("Cannot get keyed decoding container"));
  return std::unexpected(wrongType(index, "Dictionary<String, Any>"));
}

std::expected<void, DecodingError> Reader::expectArray(std::uint32_t index) const {
  const Kind kind = document_.node(index).kind;
  if (kind == Kind::array) return {};
  if (kind == Kind::null)
    return std::unexpected(nullValue("Cannot get unkeyed decoding container"));
  return std::unexpected(wrongType(index, "Array<Any>"));
}

std::expected<std::string, DecodingError> Reader::readString(std::uint32_t index) const {
  const auto& node = document_.node(index);
  if (node.kind == Kind::string) return std::string(node.text);
  if (node.kind == Kind::null) return std::unexpected(nullValue("Cannot get value of type String"));
  return std::unexpected(wrongType(index, "String"));
}

std::expected<bool, DecodingError> Reader::readBool(std::uint32_t index) const {
  const auto& node = document_.node(index);
  if (node.kind == Kind::boolean) return node.truth;
  // Unlike all other types a missing boolean is a mismatch, not an absent value.
  return std::unexpected(wrongType(index, "Bool"));
}

std::expected<double, DecodingError> Reader::readDouble(std::uint32_t index) const {
  const auto& node = document_.node(index);
  if (node.kind == Kind::null) return std::unexpected(nullValue("Cannot get value of type Double"));
  if (node.kind != Kind::number) return std::unexpected(wrongType(index, "Double"));
  const auto value = json::parseDouble(node.text);
  if (!value) return std::unexpected(corrupted(value.error()));
  return *value;
}

std::expected<std::int64_t, DecodingError> Reader::readInteger(std::uint32_t index) const {
  const auto& node = document_.node(index);
  if (node.kind == Kind::null) return std::unexpected(nullValue("Cannot get value of type Int64"));
  if (node.kind != Kind::number) return std::unexpected(wrongType(index, "Int64"));
  const auto value = json::parseInteger(node.text);
  if (!value) return std::unexpected(corrupted(value.error()));
  return *value;
}

void Writer::writeDouble(double value) {
  if (json::appendDouble(text, value)) return;
  text += "null";
  if (!error) {
    error =
        EncodingError{"Unable to encode Double." + json::description(value) + " directly in JSON."};
  }
}

}  // namespace coding
}  // namespace stillow::core
