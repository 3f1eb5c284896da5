#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <string_view>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "StillowCore/LastBytes.hpp"

namespace stillow::core {
namespace {

/// Byte by byte, as the header says it.
LastBytes plainly(std::size_t end, std::string_view text) {
  LastBytes bytes;
  for (std::size_t n = 0; n < LastBytes::size && n < end; ++n) {
    const char c = text[end - 1 - n];
    const auto byte = static_cast<unsigned char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
    std::uint64_t& word = n < 8 ? bytes.right : n < 16 ? bytes.middle : bytes.left;
    word |= std::uint64_t{byte} << (56 - 8 * (n % 8));
    if (c == '.') bytes.dots |= 0x8000'0000 >> n;
    if (byte >= 0x80) bytes.isASCII = false;
  }
  return bytes;
}

void expectAgreement(std::string_view text) {
  for (std::size_t end = 0; end <= text.size(); ++end) {
    const LastBytes expected = plainly(end, text);
    ASSERT_EQ(LastBytes::before(end, text), expected) << text << " before " << end;
    ASSERT_EQ(LastBytes::withWords(end, text), expected) << text << " before " << end;
  }
  ASSERT_EQ(LastBytes::of(text), plainly(text.size(), text)) << text;
}

TEST(LastBytes, agreesWithReadingByteByByte) {
  std::mt19937_64 random(816'458'820);
  constexpr std::string_view usual = "abcxyzABCXYZ@[`{.-_09..";
  for (int round = 0; round < 4'000; ++round) {
    std::string text(LastBytes::textBytesMin + random() % 60, 'a');
    for (char& c : text) {
      c = random() % 64 == 0 ? static_cast<char>(random()) : usual[random() % usual.size()];
    }
    expectAgreement(text);
  }
}

TEST(LastBytes, knowsEveryByteAtEveryPlace) {
  for (std::size_t at = 0; at < 30; ++at) {
    for (int byte = 0; byte < 256; ++byte) {
      std::string text(30, 'n');
      text[at] = static_cast<char>(byte);
      ASSERT_EQ(LastBytes::of(text), plainly(text.size(), text)) << at << " " << byte;
      ASSERT_EQ(LastBytes::withWords(text.size(), text), plainly(text.size(), text));
    }
  }
}

TEST(LastBytes, saysWhereATextBegins) {
  EXPECT_EQ(LastBytes::beginning(0), 0x8000'0000);
  EXPECT_EQ(LastBytes::beginning(8), 0x0080'0000);
  EXPECT_EQ(LastBytes::beginning(23), 0x0000'0100);
  EXPECT_EQ(LastBytes::beginning(24), 0U) << "more may come before";
  EXPECT_EQ(LastBytes::beginning(1'000), 0U);
}

/// One page that can be read between two that cannot.
class GuardedPage {
 public:
  GuardedPage() {
    void* const pages = ::mmap(nullptr, 3 * size_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) return;
    pages_ = static_cast<char*>(pages);
    isReadable_ = ::mprotect(begin(), size_, PROT_READ | PROT_WRITE) == 0;
  }
  GuardedPage(const GuardedPage&) = delete;
  GuardedPage& operator=(const GuardedPage&) = delete;
  ~GuardedPage() {
    if (pages_ != nullptr) ::munmap(pages_, 3 * size_);
  }
  [[nodiscard]] bool isReadable() const { return isReadable_; }
  [[nodiscard]] char* begin() const { return pages_ + size_; }
  [[nodiscard]] char* end() const { return begin() + size_; }

 private:
  std::size_t size_ = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  char* pages_ = nullptr;
  bool isReadable_ = false;
};

TEST(LastBytes, readsNothingOutsideOfTheText) {
  const GuardedPage page;
  ASSERT_TRUE(page.isReadable());
  const std::string name = "www.some-longer.name-of.example.com";
  for (std::size_t length = LastBytes::textBytesMin; length <= name.size(); ++length) {
    const std::string_view text = std::string_view(name).substr(name.size() - length);
    for (char* const place : {page.begin(), page.end() - length}) {
      std::memcpy(place, text.data(), length);
      expectAgreement({place, length});
    }
  }
}

}  // namespace
}  // namespace stillow::core
