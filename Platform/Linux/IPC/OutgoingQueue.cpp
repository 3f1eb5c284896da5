#include "PlatformLinuxIPC/OutgoingQueue.hpp"

namespace stillow::platform {

namespace {

/// What a text takes beside its characters, roughly: itself, its charge, its place in the queue.
constexpr std::size_t textOverheadBytes = 256;

}  // namespace

OutgoingLine OutgoingLine::of(std::vector<rpc::Text> texts, bool isBatch, std::size_t callsAnswered,
                              const std::shared_ptr<ByteBudget::Account>& account) {
  OutgoingLine line{.texts = std::move(texts), .charges = {}, .callsAnswered = callsAnswered};
  if (isBatch) {
    for (auto& text : line.texts) text.head.insert(0, &text == &line.texts.front() ? "[" : ",");
    line.texts.back().tail += ']';
  }
  line.texts.back().tail += '\n';
  line.charges.reserve(line.texts.size());
  for (const auto& text : line.texts) {
    line.charges.emplace_back(account, text.head.size() + text.tail.size() + textOverheadBytes,
                              text.body);
  }
  return line;
}

void OutgoingQueue::appendPush(OutgoingLine line) {
  if (push_ != lines_.end()) lines_.erase(push_);
  push_ = lines_.insert(lines_.end(), std::move(line));
}

std::vector<OutgoingLine> OutgoingQueue::take(std::size_t textsMax) {
  std::vector<OutgoingLine> taken;
  std::size_t texts = 0;
  while (!lines_.empty() && (taken.empty() || texts + lines_.front().texts.size() <= textsMax)) {
    if (push_ == lines_.begin()) push_ = lines_.end();
    texts += lines_.front().texts.size();
    taken.push_back(std::move(lines_.front()));
    lines_.pop_front();
  }
  return taken;
}

void OutgoingQueue::clear() {
  lines_.clear();
  push_ = lines_.end();
}

}  // namespace stillow::platform
