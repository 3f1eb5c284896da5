#include <cmath>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "StillowCore/Coding.hpp"
#include "StillowCore/EnforcementHealth.hpp"
#include "StillowCore/UUID.hpp"

namespace stillow::core {
namespace {

struct Record {
  std::int64_t whole = 0;
  double real = 0;
  bool truth = false;
  std::optional<std::string> text;
  std::vector<std::int64_t> list;
  friend bool operator==(const Record&, const Record&) = default;
};

struct Event {
  struct idle {
    friend bool operator==(const idle&, const idle&) = default;
  };
  struct expired {
    Date endedAt;
    friend bool operator==(const expired&, const expired&) = default;
  };
  struct active {
    std::int64_t value;
    friend bool operator==(const active&, const active&) = default;
  };
  struct two {
    std::int64_t first;
    std::string label;
    friend bool operator==(const two&, const two&) = default;
  };
  using Cases = std::variant<idle, expired, active, two>;
  Cases cases;
  template <CaseOf<Cases> Case>
  Event(Case value) : cases(std::move(value)) {}
  friend bool operator==(const Event&, const Event&) = default;
};

}  // namespace

template <>
struct Coding<Record> {
  static constexpr auto fields =
      coding::fieldsOf(coding::field("whole", &Record::whole), coding::field("real", &Record::real),
                       coding::field("truth", &Record::truth), coding::field("text", &Record::text),
                       coding::field("list", &Record::list));
};

template <>
struct Coding<Event> {
  static constexpr auto cases = coding::casesOf(
      coding::caseOf<Event::idle>("idle"),
      coding::caseOf<Event::expired>("expired", coding::field("endedAt", &Event::expired::endedAt)),
      coding::caseOf<Event::active>("active", coding::field("_0", &Event::active::value)),
      coding::caseOf<Event::two>("two", coding::field("_0", &Event::two::first),
                                 coding::field("label", &Event::two::label)));
};

namespace {

using Kind = DecodingError::Kind;

TEST(Coding, writesFieldsInOrderAndLeavesAbsentOnesOut) {
  EXPECT_EQ(encode(Record{1, 2.5, true, "a/b", {1, 2}}),
            R"({"whole":1,"real":2.5,"truth":true,"text":"a\/b","list":[1,2]})");
  EXPECT_EQ(encode(Record{}), R"({"whole":0,"real":0,"truth":false,"list":[]})");
}

TEST(Coding, writesACaseAsAnObjectOfOneKey) {
  EXPECT_EQ(encode(Event(Event::idle{})), R"({"idle":{}})");
  EXPECT_EQ(encode(Event(Event::expired{{5}})), R"({"expired":{"endedAt":5}})");
  EXPECT_EQ(encode(Event(Event::active{7})), R"({"active":{"_0":7}})");
  EXPECT_EQ(encode(Event(Event::two{1, "a/b"})), R"({"two":{"_0":1,"label":"a\/b"}})");
}

TEST(Coding, refusesToWriteWhatIsNotANumber) {
  const auto encoded = encode(Record{.real = std::nan("")});
  ASSERT_FALSE(encoded.has_value());
  EXPECT_EQ(encoded.error().description, "Unable to encode Double.nan directly in JSON.");
  EXPECT_EQ(encode(Record{.real = HUGE_VAL}).error().description,
            "Unable to encode Double.inf directly in JSON.");
  EXPECT_EQ(encode(Record{.real = -HUGE_VAL}).error().description,
            "Unable to encode Double.-inf directly in JSON.");
}

TEST(Coding, ignoresUnknownKeysAndTakesTheFirstOfDuplicates) {
  const auto record = decode<Record>(
      R"({"unknown":[{"x":1}],"list":[3],"truth":true,"real":1,"whole":1,"whole":2,"\u0077hole":3})");
  ASSERT_TRUE(record.has_value()) << describe(record.error());
  EXPECT_EQ(*record, (Record{1, 1, true, std::nullopt, {3}}));
}

TEST(Coding, treatsNullAsAnAbsentOptional) {
  const auto record = decode<Record>(R"({"whole":1,"real":1,"truth":true,"text":null,"list":[]})");
  ASSERT_TRUE(record.has_value());
  EXPECT_EQ(record->text, std::nullopt);
}

TEST(Coding, saysWhatWasWrongAndWhere) {
  struct Row {
    const char* json;
    Kind kind;
    const char* path;
    const char* description;
  };
  const Row rows[]{
      {R"({"real":1,"truth":true,"list":[]})", Kind::keyNotFound, "",
       R"(No value associated with key CodingKeys(stringValue: "whole", intValue: nil) ("whole").)"},
      {R"({"whole":"1"})", Kind::typeMismatch, "whole",
       "Expected to decode Int64 but found a string instead."},
      {R"({"whole":true})", Kind::typeMismatch, "whole",
       "Expected to decode Int64 but found bool instead."},
      {R"({"whole":null})", Kind::valueNotFound, "whole",
       "Cannot get value of type Int64 -- found null value instead"},
      {R"({"whole":1.5})", Kind::dataCorrupted, "whole", "The given data was not valid JSON."},
      {R"({"whole":1,"real":[]})", Kind::typeMismatch, "real",
       "Expected to decode Double but found an array instead."},
      {R"({"whole":1,"real":1,"truth":1})", Kind::typeMismatch, "truth",
       "Expected to decode Bool but found number instead."},
      {R"({"whole":1,"real":1,"truth":null})", Kind::typeMismatch, "truth",
       "Expected to decode Bool but found null instead."},
      {R"({"whole":1,"real":1,"truth":"true"})", Kind::typeMismatch, "truth",
       "Expected to decode Bool but found a string instead."},
      {R"({"whole":1,"real":1,"truth":true,"text":5})", Kind::typeMismatch, "text",
       "Expected to decode String but found number instead."},
      {R"({"whole":1,"real":1,"truth":true,"list":[1,{}]})", Kind::typeMismatch, "list[1]",
       "Expected to decode Int64 but found a dictionary instead."},
      {R"({"whole":1,"real":1,"truth":true,"list":[1,null]})", Kind::valueNotFound, "list[1]",
       "Cannot get value of type Int64 -- found null value instead"},
      {R"({"whole":1,"real":1,"truth":true,"list":null})", Kind::valueNotFound, "list",
       "Cannot get unkeyed decoding container -- found null value instead"},
      {R"({"whole":1,"real":1,"truth":true,"list":{}})", Kind::typeMismatch, "list",
       "Expected to decode Array<Any> but found a dictionary instead."},
      {"null", Kind::valueNotFound, "",
       "Cannot get keyed decoding container -- found null value instead"},
      {"[]", Kind::typeMismatch, "",
       "Expected to decode Dictionary<String, Any> but found an array instead."},
      {"{", Kind::dataCorrupted, "", "The given data was not valid JSON."},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.json);
    const auto record = decode<Record>(row.json);
    ASSERT_FALSE(record.has_value());
    EXPECT_EQ(record.error(), (DecodingError{row.kind, row.path, row.description}));
  }
}

TEST(Coding, putsThePathInFrontOfTheDescription) {
  EXPECT_EQ(describe(DecodingError{Kind::dataCorrupted, "a[3].b", "Wrong."}), "a[3].b: Wrong.");
  EXPECT_EQ(describe(DecodingError{Kind::dataCorrupted, "", "Wrong."}), "Wrong.");
}

TEST(Coding, readsCases) {
  EXPECT_EQ(decode<Event>(R"({"idle":{}})"), Event(Event::idle{}));
  EXPECT_EQ(decode<Event>(R"({"idle":{"x":1}})"), Event(Event::idle{}));
  EXPECT_EQ(decode<Event>(R"({"idle":{},"idle":{}})"), Event(Event::idle{}));
  EXPECT_EQ(decode<Event>(R"({"expired":{"endedAt":1}})"), Event(Event::expired{{1}}));
  EXPECT_EQ(decode<Event>(R"({"two":{"label":"x","_0":2}})"), Event(Event::two{2, "x"}));
}

TEST(Coding, countsEveryKeyOfACase) {
  for (const char* const json :
       {"{}", R"({"bogus":{}})", R"({"Idle":{}})", R"({"idle":{},"expired":{"endedAt":1}})",
        R"({"idle":{},"active":null})", R"({"idle":{},"bogus":1})", R"({"bogus":1,"idle":{}})"}) {
    SCOPED_TRACE(json);
    const auto event = decode<Event>(json);
    ASSERT_FALSE(event.has_value());
    EXPECT_EQ(event.error(), (DecodingError{Kind::dataCorrupted, "",
                                            "Invalid number of keys found, expected one."}));
  }
}

TEST(Coding, wantsAnObjectAsTheCaseAndAsItsPayload) {
  struct Row {
    const char* json;
    Kind kind;
    const char* path;
  };
  const Row rows[]{{R"({"idle":null})", Kind::valueNotFound, "idle"},
                   {R"({"idle":[]})", Kind::typeMismatch, "idle"},
                   {R"({"idle":1})", Kind::typeMismatch, "idle"},
                   {R"({"expired":{}})", Kind::keyNotFound, "expired"},
                   {R"({"expired":{"_0":5}})", Kind::keyNotFound, "expired"},
                   {R"({"expired":{"endedAt":null}})", Kind::valueNotFound, "expired.endedAt"},
                   {R"({"active":7})", Kind::typeMismatch, "active"},
                   {R"("idle")", Kind::typeMismatch, ""},
                   {"[]", Kind::typeMismatch, ""},
                   {"null", Kind::valueNotFound, ""}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.json);
    const auto event = decode<Event>(row.json);
    ASSERT_FALSE(event.has_value());
    EXPECT_EQ(event.error().kind, row.kind);
    EXPECT_EQ(event.error().path, row.path);
  }
}

TEST(Coding, codesDataAsBase64AndRefusesWhatIsNone) {
  EXPECT_EQ(encode(Data{"\xFB\xFF\xFE\x3E\x3F"}), R"("+\/\/+Pj8=")");
  EXPECT_EQ(decode<Data>(R"("\u0041Q==")"), Data{"\x01"});
  EXPECT_EQ(decode<Data>(R"("AQ")").error(),
            (DecodingError{Kind::dataCorrupted, "", "Encountered Data is not valid Base64."}));
  EXPECT_EQ(decode<Data>("1").error().kind, Kind::typeMismatch);
}

TEST(UUID, printsInUpperCaseAndReadsEitherCase) {
  const auto uuid = UUID::parse("e621e1f8-c36c-495a-93fc-0c247a3e6e5f");
  ASSERT_TRUE(uuid.has_value());
  EXPECT_EQ(uuid->string(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  EXPECT_EQ(UUID::parse(uuid->string()), uuid);
  EXPECT_EQ(encode(*uuid), "\"E621E1F8-C36C-495A-93FC-0C247A3E6E5F\"");
  EXPECT_EQ(decode<UUID>("\"E621E1F8-c36c-495A-93FC-0C247A3E6E5F\""), *uuid);
}

TEST(UUID, refusesOtherForms) {
  for (const char* const text :
       {"{E621E1F8-C36C-495A-93FC-0C247A3E6E5F}", "E621E1F8C36C495A93FC0C247A3E6E5F",
        "urn:uuid:E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "E621E1F8-C36C-495A-93FC-0C247A3E6E5F ",
        "E621E1F8-C36C-495A-93FC-0C247A3E6E5", "E621E1F8_C36C_495A_93FC_0C247A3E6E5F",
        "+621E1F8-C36C-495A-93FC-0C247A3E6E5F", "0x21E1F8-C36C-495A-93FC-0C247A3E6E5F",
        "E621E1 8-C36C-495A-93FC-0C247A3E6E5F", ""}) {
    EXPECT_EQ(UUID::parse(text), std::nullopt) << text;
  }
  EXPECT_EQ(decode<UUID>("\"x\"").error(),
            (DecodingError{Kind::dataCorrupted, "",
                           "Attempted to decode UUID from invalid UUID string."}));
}

TEST(EnforcementHealthStatus, readsAndWritesDegradedFailedOpen) {
  const std::string text = R"({"degraded":{"_0":"failedOpen"}})";
  const auto status = decode<EnforcementHealthStatus>(text);
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(*status,
            EnforcementHealthStatus(EnforcementHealthStatus::degraded{DegradedReason::failedOpen}));
  EXPECT_EQ(encode(*status), text);
  EXPECT_EQ(encode(EnforcementHealthStatus(EnforcementHealthStatus::healthy{})),
            R"({"healthy":{}})");
}

TEST(EnforcementHealthStatus, refusesTwoCasesAtOnce) {
  const auto status =
      decode<EnforcementHealthStatus>(R"({"healthy":{},"degraded":{"_0":"failedOpen"}})");
  ASSERT_FALSE(status.has_value());
  EXPECT_EQ(status.error().description, "Invalid number of keys found, expected one.");
}

TEST(DegradedReason, refusesARawStringOfTheWrongCase) {
  EXPECT_EQ(
      decode<DegradedReason>("\"FailedOpen\"").error(),
      (DecodingError{Kind::dataCorrupted, "",
                     "Cannot initialize DegradedReason from invalid String value FailedOpen"}));
  EXPECT_EQ(decode<DegradedReason>("1").error().kind, Kind::typeMismatch);
  EXPECT_EQ(decode<DegradedReason>("null").error().kind, Kind::valueNotFound);
}

TEST(EnforcementValidation, hasTheFormsOfItsCases) {
  using Validation = EnforcementValidation;
  EXPECT_EQ(encode(Validation(Validation::passed{})), R"({"passed":{}})");
  EXPECT_EQ(encode(Validation(Validation::failed{EnforcementValidationFailure::filterNotArmed})),
            R"({"failed":{"_0":"filterNotArmed"}})");
}

}  // namespace
}  // namespace stillow::core
