#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/src.hpp>

#include "StillowCore/JSONDocument.hpp"

namespace stillow::testing {

/// A value or a key, in the order of the text.
struct JSONEvent {
  core::JSONDocument::Kind kind;
  bool truth = false;
  std::size_t count = 0;  ///< elements of an array, members of an object
  std::string text;       ///< a string's characters, a number's digits

  friend bool operator==(const JSONEvent&, const JSONEvent&) = default;
};

/// Gathers what Boost.JSON's event parser says, which is somebody else's reading of RFC 8259.
class BoostJSONHandler {
 public:
  static constexpr std::size_t max_array_size = SIZE_MAX;
  static constexpr std::size_t max_object_size = SIZE_MAX;
  static constexpr std::size_t max_string_size = SIZE_MAX;
  static constexpr std::size_t max_key_size = SIZE_MAX;

  using Kind = core::JSONDocument::Kind;
  using ErrorCode = boost::json::error_code;
  using Text = boost::json::string_view;

  bool on_document_begin(ErrorCode&) { return true; }
  bool on_document_end(ErrorCode&) { return true; }
  bool on_array_begin(ErrorCode&) { return open(Kind::array); }
  bool on_array_end(std::size_t count, ErrorCode&) { return close(count); }
  bool on_object_begin(ErrorCode&) { return open(Kind::object); }
  bool on_object_end(std::size_t count, ErrorCode&) { return close(count); }
  bool on_string_part(Text part, std::size_t, ErrorCode&) { return gather(part); }
  bool on_string(Text last, std::size_t, ErrorCode&) { return add(Kind::string, last); }
  bool on_key_part(Text part, std::size_t, ErrorCode&) { return gather(part); }
  bool on_key(Text last, std::size_t, ErrorCode&) { return add(Kind::string, last); }
  bool on_number_part(Text part, ErrorCode&) { return gather(part); }
  bool on_int64(std::int64_t, Text last, ErrorCode&) { return add(Kind::number, last); }
  bool on_uint64(std::uint64_t, Text last, ErrorCode&) { return add(Kind::number, last); }
  bool on_double(double, Text last, ErrorCode&) { return add(Kind::number, last); }
  bool on_bool(bool truth, ErrorCode&) {
    events.push_back({.kind = Kind::boolean, .truth = truth, .text = {}});
    return true;
  }
  bool on_null(ErrorCode&) {
    events.push_back({.kind = Kind::null, .text = {}});
    return true;
  }
  bool on_comment_part(Text, ErrorCode&) { return true; }
  bool on_comment(Text, ErrorCode&) { return true; }

  std::vector<JSONEvent> events;

 private:
  bool open(Kind kind) {
    open_.push_back(events.size());
    events.push_back({.kind = kind, .text = {}});
    return true;
  }
  bool close(std::size_t count) {
    events[open_.back()].count = count;
    open_.pop_back();
    return true;
  }
  bool gather(Text part) {
    gathered_.append(part.data(), part.size());
    return true;
  }
  bool add(Kind kind, Text last) {
    gather(last);
    events.push_back({.kind = kind, .text = std::exchange(gathered_, {})});
    return true;
  }

  std::vector<std::size_t> open_;
  std::string gathered_;
};

struct BoostJSONReading {
  /// None: no JSON.
  std::optional<std::vector<JSONEvent>> events;
  /// It refuses exponents of ten digits, which RFC 8259 allows. Such a text says nothing about us.
  bool hasGivenUp = false;
};

inline BoostJSONReading readWithBoost(std::string_view text) {
  boost::json::parse_options options;
  options.max_depth = core::JSONDocument::nestingMax;
  boost::json::basic_parser<BoostJSONHandler> parser(options);
  boost::json::error_code error;
  const std::size_t consumed = parser.write_some(false, text.data(), text.size(), error);
  if (error) return {.events = {}, .hasGivenUp = error == boost::json::error::exponent_overflow};
  if (consumed < text.size()) return {};
  return {.events = std::move(parser.handler().events)};
}

/// What we read.
inline std::optional<std::vector<JSONEvent>> readWithDocument(std::string_view text) {
  const auto document = core::JSONDocument::parse(text);
  if (!document) return std::nullopt;
  std::vector<JSONEvent> events;
  // Every node is a value or a key; a container's are those behind it.
  const std::uint32_t end = document->end(core::JSONDocument::root());
  for (std::uint32_t index = 0; index < end; ++index) {
    const auto node = document->node(index);
    events.push_back({node.kind, node.truth, node.count, std::string(node.text)});
  }
  return events;
}

}  // namespace stillow::testing
