#pragma once  // The templates of Coding.hpp; include that header.

#include <array>
#include <cstddef>
#include <cstring>

#include "StillowCore/Base64.hpp"
#include "StillowCore/Coding.hpp"

namespace stillow::core::coding {

// ---- encoding

/// A name as it stands before its value, such as `,"name":`. The compiler makes it, so a writer
/// only copies it. Names are plain ASCII.
template <std::size_t size>
struct KeyText {
  std::array<char, size + 4> characters;

  consteval explicit KeyText(std::string_view name) : characters{} {
    auto out = characters.begin();
    *out++ = ',';
    *out++ = '"';
    for (const char c : name) {
      if (c < ' ' || c > '~' || c == '"' || c == '\\' || c == '/') throw "a name needs no escapes";
      *out++ = c;
    }
    *out++ = '"';
    *out++ = ':';
  }
  /// With `first` in the place of the comma.
  void appendTo(TextBuffer& text, char first) const {
    char* const to = text.room(characters.size());
    std::memcpy(to, characters.data(), characters.size());
    *to = first;
    text.endAt(to + characters.size());
  }
};

/// How a record or the payload of a case declares its fields.
template <class T>
struct FieldsOfRecord {
  static constexpr const auto& fields() noexcept { return Coding<T>::fields; }
};
template <class T, std::size_t index>
struct FieldsOfCase {
  static constexpr const auto& fields() noexcept {
    return std::get<index>(Coding<T>::cases).fields;
  }
};

template <class Declared, class Owner>
void Writer::writeFields(const Owner& owner) {
  constexpr const auto& fields = Declared::fields();
  char separator = '{';
  [[maybe_unused]] const auto writeOne = [&]<std::size_t index>() {
    constexpr const auto& field = std::get<index>(fields);
    static constexpr KeyText<field.name.size()> key(field.name);
    const auto& value = owner.*(field.member);
    using Value = std::remove_cvref_t<decltype(value)>;
    if constexpr (IsOptional<Value>::value) {
      if (!value) return;
    }
    key.appendTo(text, separator);
    separator = ',';
    if constexpr (IsOptional<Value>::value) {
      write(*value);
    } else {
      write(value);
    }
  };
  [&]<std::size_t... indices>(std::index_sequence<indices...>) {
    (writeOne.template operator()<indices>(), ...);
  }(std::make_index_sequence<std::tuple_size_v<std::remove_cvref_t<decltype(fields)>>>{});
  if (separator == '{') text.append('{');
  text.append('}');
}

template <class T>
void Writer::writeElements(const T& elements) {
  using Element = typename T::value_type;
  char separator = '[';
  if constexpr (RefinedText<Element>) {
    // They may be many, and most need no escapes: then this is all the memory that they take.
    std::size_t size = 2 + json::endBytes;
    for (const Element& element : elements) size += Coding<Element>::raw(element).size() + 3;
    (void)text.room(size);
    for (const Element& element : elements) {
      json::appendString(text, separator, Coding<Element>::raw(element));
      separator = ',';
    }
  } else {
    for (const auto& element : elements) {
      text.append(separator);
      separator = ',';
      write(element);
    }
  }
  if (separator == '[') text.append('[');
  text.append(']');
}

template <class T>
void Writer::write(const T& value) {
  if constexpr (Record<T>) {
    writeFields<FieldsOfRecord<T>>(value);
  } else if constexpr (Sum<T>) {
    const auto writeIfHeld = [&]<std::size_t index>() {
      constexpr const auto& described = std::get<index>(Coding<T>::cases);
      static constexpr KeyText<described.name.size()> key(described.name);
      using Payload = typename std::remove_cvref_t<decltype(described)>::Type;
      const Payload* payload = std::get_if<Payload>(&value.cases);
      if (payload == nullptr) return;
      key.appendTo(text, '{');
      writeFields<FieldsOfCase<T, index>>(*payload);
    };
    [&]<std::size_t... indices>(std::index_sequence<indices...>) {
      (writeIfHeld.template operator()<indices>(), ...);
    }(std::make_index_sequence<std::tuple_size_v<decltype(Coding<T>::cases)>>{});
    text.append('}');
  } else if constexpr (Named<T>) {
    json::appendString(text, rawValue(value));
  } else if constexpr (RefinedText<T>) {
    json::appendString(text, Coding<T>::raw(value));
  } else if constexpr (Refined<T>) {
    write(Coding<T>::raw(value));
  } else if constexpr (std::same_as<T, bool>) {
    text.append(value ? std::string_view("true") : std::string_view("false"));
  } else if constexpr (std::integral<T>) {
    json::appendInteger(text, static_cast<std::int64_t>(value));
  } else if constexpr (std::same_as<T, double>) {
    writeDouble(value);
  } else if constexpr (std::same_as<T, Date>) {
    writeDouble(value.secondsSinceReferenceDate);
  } else if constexpr (std::same_as<T, Data>) {
    json::appendBase64(text, value.bytes);
  } else if constexpr (std::convertible_to<const T&, std::string_view>) {
    json::appendString(text, value);
  } else {
    static_assert(Collection<T> || IsVector<T>::value, "no Coding describes this type");
    writeElements(value);
  }
}

// ---- decoding

template <class T>
std::expected<T, DecodingError> Reader::read(std::uint32_t index) const {
  if constexpr (Record<T>) {
    if (document_.kind(index) != Kind::object) return std::unexpected(noObject(index));
    return readFields<T, FieldsOfRecord<T>>(index);
  } else if constexpr (Sum<T>) {
    return readCase<T>(index);
  } else if constexpr (Named<T>) {
    const auto raw = readText(index);
    if (!raw) return std::unexpected(raw.error());
    for (const auto& entry : Coding<T>::names) {
      if (entry.name == *raw) return entry.value;
    }
    return std::unexpected(corrupted("Cannot initialize " + std::string(Coding<T>::typeName) +
                                     " from invalid String value " + std::string(*raw)));
  } else if constexpr (RefinedText<T>) {
    const auto raw = readText(index);
    if (!raw) return std::unexpected(raw.error());
    std::optional<T> refined = Coding<T>::refine(*raw);
    if (!refined) return std::unexpected(corrupted(Coding<T>::refusal(*raw)));
    return std::move(*refined);
  } else if constexpr (Refined<T>) {
    auto raw = read<typename Coding<T>::Underlying>(index);
    if (!raw) return std::unexpected(std::move(raw.error()));
    std::expected<T, std::string> refined = Coding<T>::refine(std::move(*raw));
    if (!refined) return std::unexpected(corrupted(std::move(refined.error())));
    return std::move(*refined);
  } else if constexpr (std::same_as<T, bool>) {
    return readBool(index);
  } else if constexpr (std::same_as<T, std::int64_t>) {
    return readInteger(index);
  } else if constexpr (std::same_as<T, double>) {
    return readDouble(index);
  } else if constexpr (std::same_as<T, Date>) {
    const auto seconds = readDouble(index);
    if (!seconds) return std::unexpected(seconds.error());
    return Date{*seconds};
  } else if constexpr (std::same_as<T, std::string>) {
    const auto text = readText(index);
    if (!text) return std::unexpected(text.error());
    return std::string(*text);
  } else if constexpr (std::same_as<T, Data>) {
    const auto encoded = readText(index);
    if (!encoded) return std::unexpected(encoded.error());
    auto bytes = json::base64Decoded(*encoded);
    if (!bytes) return std::unexpected(corrupted(std::move(bytes.error())));
    return Data{std::move(*bytes)};
  } else if constexpr (IsVector<T>::value) {
    return readElements<typename IsVector<T>::Element>(index);
  } else {
    static_assert(Collection<T>, "no Coding describes this type");
    auto elements = readElements<typename T::value_type>(index);
    if (!elements) return std::unexpected(std::move(elements.error()));
    std::expected<T, std::string> collected = Coding<T>::collect(std::move(*elements));
    if (!collected) return std::unexpected(corrupted(std::move(collected.error())));
    return std::move(*collected);
  }
}

template <class FieldType>
std::expected<FieldType, DecodingError> Reader::readField(std::uint32_t value,
                                                          std::string_view name) const {
  if constexpr (IsOptional<FieldType>::value) {
    if (value == 0 || document_.kind(value) == Kind::null) return FieldType{};
    auto wrapped = read<typename IsOptional<FieldType>::Wrapped>(value);
    if (wrapped) return FieldType{std::move(*wrapped)};
    prefixPath(wrapped.error(), name);
    return std::unexpected(std::move(wrapped.error()));
  } else {
    if (value == 0) return std::unexpected(missingKey(name));
    auto result = read<FieldType>(value);
    if (!result) prefixPath(result.error(), name);
    return result;
  }
}

template <class T, class Declared>
std::expected<T, DecodingError> Reader::readFields(std::uint32_t object) const {
  // Values need not be default-constructible, so they are gathered first and the record is built
  // from all of them at once, in field order, which is the order of its members.
  using Fields = std::remove_cvref_t<decltype(Declared::fields())>;
  return [&]<std::size_t... indices>(
             std::index_sequence<indices...>) -> std::expected<T, DecodingError> {
    std::tuple<std::optional<typename std::tuple_element_t<indices, Fields>::Type>...> values;
    std::optional<DecodingError> error;
    [[maybe_unused]] Members members{object + 1, document_.end(object)};
    [[maybe_unused]] const auto readOne = [&]<std::size_t index>() {
      static constexpr std::string_view name = std::get<index>(Declared::fields()).name;
      auto value = readField<typename std::tuple_element_t<index, Fields>::Type>(
          member(members, name), name);
      if (!value) {
        error = std::move(value.error());
        return false;
      }
      std::get<index>(values).emplace(std::move(*value));
      return true;
    };
    const bool isComplete = (readOne.template operator()<indices>() && ...);
    if (!isComplete) return std::unexpected(std::move(*error));
    return T{std::move(*std::get<indices>(values))...};
  }(std::make_index_sequence<std::tuple_size_v<Fields>>{});
}

template <class T>
std::expected<T, DecodingError> Reader::readCase(std::uint32_t index) const {
  if (document_.kind(index) != Kind::object) return std::unexpected(noObject(index));
  const auto wrongCount = [] {
    return std::unexpected(corrupted("Invalid number of keys found, expected one."));
  };
  // A key that stands twice counts once: the first wins, here as in records.
  const std::uint32_t end = document_.end(index);
  if (index + 1 == end) return wrongCount();
  const std::string_view name = document_.text(index + 1);
  const std::uint32_t value = index + 2;
  for (std::uint32_t key = document_.end(value); key < end; key = document_.end(key + 1)) {
    if (document_.text(key) != name) return wrongCount();
  }

  std::optional<std::expected<T, DecodingError>> result;
  const auto readIfNamed = [&]<std::size_t which>() {
    static constexpr std::string_view caseName = std::get<which>(Coding<T>::cases).name;
    if (name != caseName) return false;
    using Payload =
        typename std::tuple_element_t<which, std::remove_cvref_t<decltype(Coding<T>::cases)>>::Type;
    if (document_.kind(value) != Kind::object) {
      result.emplace(std::unexpected(noObject(value)));
    } else if (auto payload = readFields<Payload, FieldsOfCase<T, which>>(value); payload) {
      result.emplace(T{std::move(*payload)});
    } else {
      result.emplace(std::unexpected(std::move(payload.error())));
    }
    if (!*result) prefixPath(result->error(), name);
    return true;
  };
  const bool isKnown = [&]<std::size_t... indices>(std::index_sequence<indices...>) {
    return (readIfNamed.template operator()<indices>() || ...);
  }(std::make_index_sequence<std::tuple_size_v<decltype(Coding<T>::cases)>>{});
  if (!isKnown) return wrongCount();
  return std::move(*result);
}

template <class Element>
std::expected<std::vector<Element>, DecodingError> Reader::readElements(std::uint32_t index) const {
  if (document_.kind(index) != Kind::array) return std::unexpected(noArray(index));
  std::vector<Element> elements;
  elements.reserve(document_.node(index).count);
  const std::uint32_t end = document_.end(index);
  for (std::uint32_t child = index + 1; child < end; child = document_.end(child)) {
    if constexpr (RefinedText<Element>) {
      // They may be many: each goes straight to its place. What cannot is read below, for the
      // error.
      if (document_.kind(child) == Kind::string) {
        if (std::optional<Element> refined = Coding<Element>::refine(document_.text(child))) {
          elements.push_back(std::move(*refined));
          continue;
        }
      }
    }
    auto element = read<Element>(child);
    if (!element) {
      prefixPath(element.error(), indexStep(elements.size()));
      return std::unexpected(std::move(element.error()));
    }
    elements.push_back(std::move(*element));
  }
  return elements;
}

}  // namespace stillow::core::coding
