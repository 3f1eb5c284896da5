#pragma once  // The templates of Coding.hpp; include that header.

#include "StillowCore/Coding.hpp"

namespace stillow::core::coding {

// ---- encoding

template <class Owner, class... Fields>
void Writer::writeFields(const Owner& owner, const std::tuple<Fields...>& fields) {
  text += '{';
  bool isFirst = true;
  const auto writeOne = [&](const auto& field) {
    const auto& value = owner.*(field.member);
    using Value = std::remove_cvref_t<decltype(value)>;
    if constexpr (IsOptional<Value>::value) {
      if (!value) return;
    }
    if (!isFirst) text += ',';
    isFirst = false;
    json::appendString(text, field.name);
    text += ':';
    if constexpr (IsOptional<Value>::value) {
      write(*value);
    } else {
      write(value);
    }
  };
  std::apply([&](const auto&... each) { (writeOne(each), ...); }, fields);
  text += '}';
}

template <class T>
void Writer::write(const T& value) {
  if constexpr (Record<T>) {
    writeFields(value, Coding<T>::fields);
  } else if constexpr (Sum<T>) {
    text += '{';
    std::apply(
        [&](const auto&... cases) {
          const auto writeIfHeld = [&](const auto& described) {
            using Payload = typename std::remove_cvref_t<decltype(described)>::Type;
            const Payload* payload = std::get_if<Payload>(&value.cases);
            if (payload == nullptr) return;
            json::appendString(text, described.name);
            text += ':';
            writeFields(*payload, described.fields);
          };
          (writeIfHeld(cases), ...);
        },
        Coding<T>::cases);
    text += '}';
  } else if constexpr (Named<T>) {
    json::appendString(text, rawValue(value));
  } else if constexpr (Refined<T>) {
    write(Coding<T>::raw(value));
  } else if constexpr (std::same_as<T, bool>) {
    text += value ? "true" : "false";
  } else if constexpr (std::integral<T>) {
    json::appendInteger(text, static_cast<std::int64_t>(value));
  } else if constexpr (std::same_as<T, double>) {
    writeDouble(value);
  } else if constexpr (std::same_as<T, Date>) {
    writeDouble(value.secondsSinceReferenceDate);
  } else if constexpr (std::same_as<T, Data>) {
    json::appendString(text, json::base64Encoded(value.bytes));
  } else if constexpr (std::convertible_to<const T&, std::string_view>) {
    json::appendString(text, value);
  } else {
    static_assert(Collection<T> || IsVector<T>::value, "no Coding describes this type");
    text += '[';
    bool isFirst = true;
    for (const auto& element : value) {
      if (!isFirst) text += ',';
      isFirst = false;
      write(element);
    }
    text += ']';
  }
}

// ---- decoding

template <class T>
std::expected<T, DecodingError> Reader::read(std::uint32_t index) const {
  if constexpr (Record<T>) {
    if (auto isObject = expectObject(index); !isObject) return std::unexpected(isObject.error());
    return readFields<T>(index, Coding<T>::fields);
  } else if constexpr (Sum<T>) {
    return readCase<T>(index);
  } else if constexpr (Named<T>) {
    auto raw = readString(index);
    if (!raw) return std::unexpected(std::move(raw.error()));
    for (const auto& entry : Coding<T>::names) {
      if (entry.name == *raw) return entry.value;
    }
    return std::unexpected(corrupted("Cannot initialize " + std::string(Coding<T>::typeName) +
                                     " from invalid String value " + *raw));
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
    return readString(index);
  } else if constexpr (std::same_as<T, Data>) {
    auto encoded = readString(index);
    if (!encoded) return std::unexpected(std::move(encoded.error()));
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
std::expected<FieldType, DecodingError> Reader::readField(std::uint32_t object,
                                                          std::string_view name) const {
  const std::uint32_t value = member(object, name);
  if constexpr (IsOptional<FieldType>::value) {
    if (value == 0 || document_.node(value).kind == Kind::null) return FieldType{};
    auto wrapped = read<typename IsOptional<FieldType>::Wrapped>(value);
    if (wrapped) return FieldType{std::move(*wrapped)};
    prefixPath(wrapped.error(), name);
    return std::unexpected(std::move(wrapped.error()));
  } else {
    if (value == 0) {
      return std::unexpected(DecodingError{
          DecodingError::Kind::keyNotFound,
          {},
          "No value associated with key CodingKeys(stringValue: \"" + std::string(name) +
              "\", intValue: nil) (\"" + std::string(name) + "\")."});
    }
    auto result = read<FieldType>(value);
    if (!result) prefixPath(result.error(), name);
    return result;
  }
}

template <class T, class... Fields>
std::expected<T, DecodingError> Reader::readFields(std::uint32_t object,
                                                   const std::tuple<Fields...>& fields) const {
  // Values need not be default-constructible, so they are gathered first and the record is built
  // from all of them at once, in field order, which is the order of its members.
  std::tuple<std::optional<typename Fields::Type>...> values;
  std::optional<DecodingError> error;
  const auto readOne = [&]<std::size_t index>() {
    const auto& described = std::get<index>(fields);
    using Value = typename std::tuple_element_t<index, std::tuple<Fields...>>::Type;
    auto value = readField<Value>(object, described.name);
    if (!value) {
      error = std::move(value.error());
      return false;
    }
    std::get<index>(values).emplace(std::move(*value));
    return true;
  };
  const bool isComplete = [&]<std::size_t... indices>(std::index_sequence<indices...>) {
    return (readOne.template operator()<indices>() && ...);
  }(std::index_sequence_for<Fields...>{});
  if (!isComplete) return std::unexpected(std::move(*error));
  return std::apply([](auto&... each) { return T{std::move(*each)...}; }, values);
}

template <class T>
std::expected<T, DecodingError> Reader::readCase(std::uint32_t index) const {
  if (auto isObject = expectObject(index); !isObject) return std::unexpected(isObject.error());
  const auto wrongCount = [] {
    return std::unexpected(corrupted("Invalid number of keys found, expected one."));
  };
  // A key that stands twice counts once: the first wins, here as in records.
  std::uint32_t value = 0;
  std::string_view name;
  const std::uint32_t end = document_.node(index).end;
  for (std::uint32_t key = index + 1; key < end; key = document_.node(key + 1).end) {
    const std::string_view found = document_.node(key).text;
    if (value != 0 && found != name) return wrongCount();
    if (value == 0) {
      name = found;
      value = key + 1;
    }
  }
  if (value == 0) return wrongCount();

  std::optional<std::expected<T, DecodingError>> result;
  const auto readIfNamed = [&](const auto& described) {
    if (described.name != name) return false;
    using Payload = typename std::remove_cvref_t<decltype(described)>::Type;
    if (auto isObject = expectObject(value); !isObject) {
      result = std::unexpected(std::move(isObject.error()));
    } else if (auto payload = readFields<Payload>(value, described.fields); payload) {
      result = T{std::move(*payload)};
    } else {
      result = std::unexpected(std::move(payload.error()));
    }
    if (!*result) prefixPath(result->error(), name);
    return true;
  };
  const bool isKnown = std::apply([&](const auto&... cases) { return (readIfNamed(cases) || ...); },
                                  Coding<T>::cases);
  if (!isKnown) return wrongCount();
  return std::move(*result);
}

template <class Element>
std::expected<std::vector<Element>, DecodingError> Reader::readElements(std::uint32_t index) const {
  if (auto isArray = expectArray(index); !isArray) return std::unexpected(isArray.error());
  const JSONDocument::Node& array = document_.node(index);
  std::vector<Element> elements;
  elements.reserve(array.count);
  for (std::uint32_t child = index + 1; child < array.end; child = document_.node(child).end) {
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
