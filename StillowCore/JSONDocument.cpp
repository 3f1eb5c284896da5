#include "StillowCore/JSONDocument.hpp"

#include <optional>

#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/src.hpp>

namespace stillow::core {

/// Turns the parser's events into nodes.
class JSONDocumentBuilder {
 public:
  static constexpr std::size_t max_array_size = SIZE_MAX;
  static constexpr std::size_t max_object_size = SIZE_MAX;
  static constexpr std::size_t max_string_size = SIZE_MAX;
  static constexpr std::size_t max_key_size = SIZE_MAX;

  using Kind = JSONDocument::Kind;
  using ErrorCode = boost::json::error_code;
  using Text = boost::json::string_view;

  bool on_document_begin(ErrorCode&) { return true; }
  bool on_document_end(ErrorCode&) { return true; }
  bool on_array_begin(ErrorCode&) { return open(Kind::array); }
  bool on_array_end(std::size_t count, ErrorCode&) { return close(count); }
  bool on_object_begin(ErrorCode&) { return open(Kind::object); }
  bool on_object_end(std::size_t count, ErrorCode&) { return close(count); }
  bool on_string_part(Text part, std::size_t, ErrorCode&) { return gather(part); }
  bool on_string(Text last, std::size_t, ErrorCode&) { return addText(Kind::string, last); }
  bool on_key_part(Text part, std::size_t, ErrorCode&) { return gather(part); }
  bool on_key(Text last, std::size_t, ErrorCode&) { return addText(Kind::string, last); }
  bool on_number_part(Text part, ErrorCode&) { return gather(part); }
  bool on_int64(std::int64_t, Text last, ErrorCode&) { return addText(Kind::number, last); }
  bool on_uint64(std::uint64_t, Text last, ErrorCode&) { return addText(Kind::number, last); }
  bool on_double(double, Text last, ErrorCode&) { return addText(Kind::number, last); }
  bool on_bool(bool truth, ErrorCode&) {
    add({.kind = Kind::boolean, .truth = truth, .text = {}});
    return true;
  }
  bool on_null(ErrorCode&) {
    add({.kind = Kind::null, .text = {}});
    return true;
  }
  bool on_comment_part(Text, ErrorCode&) { return true; }
  bool on_comment(Text, ErrorCode&) { return true; }

  std::string_view source;
  JSONDocument document;

 private:
  void add(JSONDocument::Node node) {
    node.end = static_cast<std::uint32_t>(document.nodes_.size() + 1);
    document.nodes_.push_back(node);
  }
  bool open(Kind kind) {
    open_.push_back(static_cast<std::uint32_t>(document.nodes_.size()));
    add({.kind = kind, .text = {}});
    return true;
  }
  bool close(std::size_t count) {
    JSONDocument::Node& container = document.nodes_[open_.back()];
    open_.pop_back();
    container.end = static_cast<std::uint32_t>(document.nodes_.size());
    container.count = static_cast<std::uint32_t>(count);
    return true;
  }
  bool gather(Text part) {
    if (!isGathering_) {
      gathered_.clear();
      isGathering_ = true;
    }
    gathered_.append(part.data(), part.size());
    return true;
  }
  bool addText(Kind kind, Text last) {
    std::string_view text(last.data(), last.size());
    const bool liesInSource = text.empty() || (std::greater_equal<>{}(text.data(), source.data()) &&
                                               std::less_equal<>{}(text.data() + text.size(),
                                                                   source.data() + source.size()));
    if (isGathering_ || !liesInSource) {
      std::string& owned =
          document.unescaped_.emplace_back(isGathering_ ? gathered_ : std::string());
      owned.append(text);
      text = owned;
      isGathering_ = false;
    }
    add({.kind = kind, .text = text});
    return true;
  }

  std::vector<std::uint32_t> open_;
  std::string gathered_;
  bool isGathering_ = false;
};

std::expected<JSONDocument, JSONDocument::ParseError> JSONDocument::parse(std::string_view bytes) {
  // Node indices are 32 bits wide; every node takes at least one byte of text.
  if (bytes.size() >= UINT32_MAX) return std::unexpected(ParseError{bytes.size(), "text too long"});
  boost::json::parse_options options;
  options.max_depth = nestingMax;
  boost::json::basic_parser<JSONDocumentBuilder> parser(options);
  parser.handler().source = bytes;
  boost::json::error_code error;
  const std::size_t consumed = parser.write_some(false, bytes.data(), bytes.size(), error);
  if (!error && consumed < bytes.size()) error = boost::json::error::extra_data;
  if (error) return std::unexpected(ParseError{consumed, error.message()});
  return std::move(parser.handler().document);
}

}  // namespace stillow::core
