#pragma once

#include <array>
#include <concepts>
#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "StillowCore/Date.hpp"
#include "StillowCore/JSONDocument.hpp"
#include "StillowCore/JSONText.hpp"
#include "StillowCore/SumType.hpp"
#include "StillowCore/TextBuffer.hpp"

/// JSON coding is declared, not programmed: one specialisation of `Coding` per type describes it,
/// and both directions follow from the description.
///
///   record            static constexpr auto fields = fieldsOf(field("name", &T::member), ...);
///   sum type          static constexpr auto cases = casesOf(caseOf<T::idle>("idle"), ...);
///   named enumeration static constexpr auto names = namesOf<T>({T::a, "a"}, ...);
///   refined value     using Underlying = U;
///                     static const U& (or U) raw(const T&);
///                     static std::expected<T, std::string> refine(U);
///   refined text      static std::string_view raw(const T&);
///                     static std::optional<T> refine(std::string_view);  // of the JSON text
///                     static std::string refusal(std::string_view);      // why there is none
///
/// The forms: a record is an object in field order whose absent optional fields are left out;
/// unknown keys are ignored and the first of duplicate keys wins. A case is an object of exactly
/// one key, the case's name, around the object of its payload; every key counts, unknown ones too.
/// Numbers, strings and dates look as in JSONText.hpp.
namespace stillow::core {

template <class T>
struct Coding;

/// Why a JSON text is not the value that was asked for.
struct DecodingError {
  /// What a caller could act on; the rest is for the reader of the log.
  enum class Kind : std::uint8_t { dataCorrupted, typeMismatch, valueNotFound, keyNotFound };

  Kind kind;
  std::string
      path;  ///< of the offending value, such as "collectionSnapshot[3].domain"; empty: the root
  std::string description;

  friend bool operator==(const DecodingError&, const DecodingError&) = default;
};

/// `description`, with the path in front where there is one.
[[nodiscard]] std::string describe(const DecodingError& error);

/// A value that JSON has no form for: NaN or an infinity.
struct EncodingError {
  std::string description;
  friend bool operator==(const EncodingError&, const EncodingError&) = default;
};

/// Bytes; standard Base64 in JSON.
struct Data {
  std::string bytes;
  friend bool operator==(const Data&, const Data&) = default;
};

namespace coding {

template <class Owner, class Member>
struct Field {
  using Type = Member;
  std::string_view name;
  Member Owner::* member;
};
template <class Owner, class Member>
constexpr Field<Owner, Member> field(std::string_view name, Member Owner::* member) {
  return {name, member};
}
template <class... Fields>
constexpr std::tuple<Fields...> fieldsOf(Fields... fields) {
  return {fields...};
}

template <class Payload, class... Fields>
struct Case {
  using Type = Payload;
  std::string_view name;
  std::tuple<Fields...> fields;
};
/// A case and its payload's fields: a label, or "_0" for a value without one.
template <class Payload, class... Fields>
constexpr Case<Payload, Fields...> caseOf(std::string_view name, Fields... fields) {
  return {name, {fields...}};
}
template <class... Cases>
constexpr std::tuple<Cases...> casesOf(Cases... cases) {
  return {cases...};
}

template <class Enumeration>
struct Name {
  Enumeration value;
  std::string_view name;
};
template <class Enumeration, std::size_t count>
constexpr std::array<Name<Enumeration>, count> namesOf(const Name<Enumeration> (&names)[count]) {
  return std::to_array(names);
}

template <class T>
concept Record = requires { Coding<T>::fields; };
template <class T>
concept Sum = requires { Coding<T>::cases; };
template <class T>
concept Named = requires { Coding<T>::names; };
template <class T>
concept Refined = requires { typename Coding<T>::Underlying; };
template <class T>
concept RefinedText = requires(std::string_view text) {
  { Coding<T>::refusal(text) } -> std::same_as<std::string>;
};
/// A collection whose elements are coded as an array: it has a value_type, iterates, and its Coding
/// gives `collect(std::vector<value_type>) -> std::expected<T, std::string>`.
template <class T>
concept Collection = requires(std::vector<typename T::value_type> elements) {
  Coding<T>::collect(std::move(elements));
};

template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {
  using Wrapped = T;
};
template <class T>
struct IsVector : std::false_type {};
template <class T>
struct IsVector<std::vector<T>> : std::true_type {
  using Element = T;
};

/// Reads the values of one document. Errors gather their path on the way out, so a success pays
/// nothing for it.
class Reader {
 public:
  explicit Reader(const JSONDocument& document) : document_(document) {}

  template <class T>
  [[nodiscard]] std::expected<T, DecodingError> read(std::uint32_t index) const;

 private:
  using Kind = JSONDocument::Kind;

  /// Walks the members of an object in step with the fields of a record, which is how they are
  /// written. Every member before `next` has the name of an earlier field, so the first one of
  /// another name is never behind it.
  struct Members {
    std::uint32_t next;
    std::uint32_t end;
  };

  /// `Declared::fields()` are the fields of T, known to the compiler with their names.
  template <class T, class Declared>
  std::expected<T, DecodingError> readFields(std::uint32_t object) const;
  template <class T>
  std::expected<T, DecodingError> readCase(std::uint32_t index) const;
  template <class Element>
  std::expected<std::vector<Element>, DecodingError> readElements(std::uint32_t index) const;
  template <class FieldType>
  std::expected<FieldType, DecodingError> readField(std::uint32_t value,
                                                    std::string_view name) const;

  /// The value of the first member of that name; 0, which is never a member's value, for none.
  [[nodiscard]] std::uint32_t member(Members& members, std::string_view name) const noexcept {
    if (members.next == members.end) return 0;
    if (document_.text(members.next) != name) return laterMember(members, name);
    const std::uint32_t value = members.next + 1;
    members.next = document_.end(value);
    return value;
  }
  [[nodiscard]] std::uint32_t laterMember(const Members& members,
                                          std::string_view name) const noexcept;
  [[nodiscard]] DecodingError noObject(std::uint32_t index) const;
  [[nodiscard]] DecodingError noArray(std::uint32_t index) const;
  [[nodiscard]] DecodingError noString(std::uint32_t index) const;
  [[nodiscard]] DecodingError wrongType(std::uint32_t index, std::string_view expected) const;

  /// Into the document.
  [[nodiscard]] std::expected<std::string_view, DecodingError> readText(std::uint32_t index) const;
  [[nodiscard]] std::expected<bool, DecodingError> readBool(std::uint32_t index) const;
  [[nodiscard]] std::expected<double, DecodingError> readDouble(std::uint32_t index) const;
  [[nodiscard]] std::expected<std::int64_t, DecodingError> readInteger(std::uint32_t index) const;

  const JSONDocument& document_;
};

/// Appends the JSON text of values. The first value without a JSON form is remembered and ends the
/// encoding at the end: the text is useless then.
class Writer {
 public:
  template <class T>
  void write(const T& value);

  TextBuffer text;
  std::optional<EncodingError> error;

 private:
  /// `Declared::fields()` are the fields of what is written, known to the compiler with their
  /// names.
  template <class Declared, class Owner>
  void writeFields(const Owner& owner);
  template <class T>
  void writeElements(const T& elements);
  void writeDouble(double value);
};

[[nodiscard]] DecodingError corrupted(std::string description);
[[nodiscard]] DecodingError missingKey(std::string_view name);
/// Puts one step in front of the error's path: "name" or "[3]".
void prefixPath(DecodingError& error, std::string_view step);
[[nodiscard]] std::string indexStep(std::size_t index);

}  // namespace coding

/// The compact JSON text of `value`.
template <class T>
[[nodiscard]] std::expected<std::string, EncodingError> encode(const T& value) {
  coding::Writer writer;
  writer.write(value);
  if (writer.error) return std::unexpected(std::move(*writer.error));
  return std::move(writer.text).take();
}

/// Reads one value out of a JSON text. Nothing in `bytes` needs to outlive the call.
template <class T>
[[nodiscard]] std::expected<T, DecodingError> decode(std::string_view bytes) {
  const auto document = JSONDocument::parse(bytes);
  if (!document) return std::unexpected(coding::corrupted("The given data was not valid JSON."));
  return coding::Reader(*document).read<T>(JSONDocument::root());
}

/// The name that stands for an enumeration's case in JSON and in texts.
template <coding::Named Enumeration>
[[nodiscard]] constexpr std::string_view rawValue(Enumeration value) noexcept {
  for (const auto& entry : Coding<Enumeration>::names) {
    if (entry.value == value) return entry.name;
  }
  return {};
}

}  // namespace stillow::core

#include "StillowCore/CodingImplementation.hpp"
