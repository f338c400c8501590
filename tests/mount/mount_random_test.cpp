#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <deque>
#include <future>
#include <numeric>
#include <random>
#include <utility>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "mount_rig.h"
#include "service/contents/lost_and_found.h"

namespace vondle {
namespace {

// Does to a file in the mounted folder what it does to a text in memory, which must stay the same. Meanwhile the file
// is sent now and then, is evicted, and is changed by another device, is closed and opened, and the service ends and
// starts again.
class RandomWrites {
 public:
  static constexpr std::int64_t LIMIT = 256 << 10;

  RandomWrites(MountRig& rig, std::uint64_t seed) : rig_(rig), random_(seed), path_(rig.path("/file")) { open(); }
  ~RandomWrites() {
    endSending();
    ::close(descriptor_);
  }
  RandomWrites(const RandomWrites&) = delete;
  RandomWrites& operator=(const RandomWrites&) = delete;

  // One act; its name.
  std::string act() {
    struct Choice {
      std::int64_t weight;
      std::string (RandomWrites::*act)();
    };
    // Those with small weights take long: they start a process, wait for the disk, or mount.
    static constexpr Choice CHOICES[] = {
        {600, &RandomWrites::read},        {400, &RandomWrites::write},      {100, &RandomWrites::append},
        {200, &RandomWrites::truncate},    {100, &RandomWrites::allocate},   {100, &RandomWrites::zero},
        {60, &RandomWrites::beginSending}, {100, &RandomWrites::endSending}, {60, &RandomWrites::evict},
        {100, &RandomWrites::reopen},      {60, &RandomWrites::compareSize}, {30, &RandomWrites::writeMapped},
        {30, &RandomWrites::readMapped},   {10, &RandomWrites::synchronise}, {2, &RandomWrites::remount},

    };
    static constexpr auto ALL = std::accumulate(std::begin(CHOICES), std::end(CHOICES), std::int64_t{0},
                                                [](auto sum, const Choice& choice) { return sum + choice.weight; });
    auto number = below(ALL);
    const auto* choice = std::begin(CHOICES);
    while (number >= choice->weight) number -= choice++->weight;
    return (this->*choice->act)();
  }

  // What only happens to a file that was sent.
  [[nodiscard]] int changesElsewhere() const { return changes_; }
  [[nodiscard]] int evictions() const { return evictions_; }

  // As others see it.
  void compareAll() {
    const int other = ::open(path_.c_str(), O_RDONLY);
    ASSERT_GE(other, 0);
    std::string text(LIMIT + 1, '\0');
    const auto count = ::pread(other, text.data(), text.size(), 0);
    ::close(other);
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    ASSERT_EQ(text.size(), expected_.size());
    ASSERT_TRUE(text == expected_);
    struct stat status{};
    ASSERT_EQ(::stat(path_.c_str(), &status), 0);
    ASSERT_EQ(status.st_size, static_cast<off_t>(expected_.size()));
  }

 private:
  std::int64_t below(std::int64_t limit) { return std::uniform_int_distribution<std::int64_t>(0, limit - 1)(random_); }
  std::int64_t size() const { return static_cast<std::int64_t>(expected_.size()); }
  std::string someText(std::int64_t size) {
    std::string text(static_cast<std::size_t>(size), '\0');
    // A piece and its repetitions, of a length that no block has.
    const auto piece = std::min<std::size_t>(text.size(), 61);
    for (std::size_t i = 0; i < piece; ++i) text[i] = static_cast<char>('a' + below(26));
    for (std::size_t i = piece; i < text.size(); ++i) text[i] = text[i - piece];
    return text;
  }
  void expect(std::int64_t offset, const std::string& text) {
    if (offset + static_cast<std::int64_t>(text.size()) > size()) expected_.resize(offset + text.size());
    expected_.replace(offset, text.size(), text);
  }

  void open(int flags = 0) {
    descriptor_ = ::open(path_.c_str(), O_RDWR | O_CREAT | flags, 0600);
    EXPECT_GE(descriptor_, 0);
  }

  std::string write() {
    const auto offset = below(LIMIT / 2);
    const auto text = someText(1 + below(40'000));
    EXPECT_EQ(::pwrite(descriptor_, text.data(), text.size(), offset), static_cast<ssize_t>(text.size()));
    expect(offset, text);
    return fmt::format("write {} {}", offset, text.size());
  }
  std::string append() {
    if (size() > LIMIT - 10'000) return "no append";
    const int appender = ::open(path_.c_str(), O_WRONLY | O_APPEND);
    const auto text = someText(1 + below(9'000));
    EXPECT_EQ(::write(appender, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    ::close(appender);
    expect(size(), text);
    return fmt::format("append {}", text.size());
  }
  std::string writeMapped() {
    if (size() == 0) return "no mapping";
    const auto offset = below(size());
    const auto text = someText(1 + below(std::min<std::int64_t>(size() - offset, 30'000)));
    const bool synchronises = below(2) == 0;
    ChildProcess child([&] {
      auto* const map =
          static_cast<char*>(::mmap(nullptr, expected_.size(), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor_, 0));
      if (map == MAP_FAILED) return false;
      std::copy(text.begin(), text.end(), map + offset);
      return (!synchronises || ::msync(map, expected_.size(), MS_SYNC) == 0) && ::munmap(map, expected_.size()) == 0;
    });
    EXPECT_TRUE(child.succeeds());
    expect(offset, text);
    return fmt::format("mapped write {} {}", offset, text.size());
  }
  std::string truncate() {
    const auto target = below(LIMIT);
    EXPECT_EQ(below(2) == 0 ? ::ftruncate(descriptor_, target) : ::truncate(path_.c_str(), target), 0);
    expected_.resize(target);
    return fmt::format("truncate {}", target);
  }
  std::string allocate() {
    const auto offset = below(LIMIT / 2);
    const auto length = 1 + below(50'000);
    const bool keepsSize = below(2) == 0;
    EXPECT_EQ(::fallocate(descriptor_, keepsSize ? FALLOC_FL_KEEP_SIZE : 0, offset, length), 0);
    if (!keepsSize && offset + length > size()) expected_.resize(offset + length);
    return fmt::format("allocate {} {} {}", offset, length, keepsSize);
  }
  std::string zero() {
    const auto offset = below(LIMIT / 2);
    const auto length = 1 + below(50'000);
    const int how = below(2) == 0 ? FALLOC_FL_PUNCH_HOLE : FALLOC_FL_ZERO_RANGE;
    EXPECT_EQ(::fallocate(descriptor_, how | FALLOC_FL_KEEP_SIZE, offset, length), 0);
    for (auto i = offset; i < std::min(offset + length, size()); ++i) expected_[i] = '\0';
    return fmt::format("{} {} {}", how == FALLOC_FL_PUNCH_HOLE ? "punch" : "zero", offset, length);
  }
  std::string read() {
    const auto offset = below(LIMIT);
    std::string text(1 + below(60'000), '\0');
    const auto count = ::pread(descriptor_, text.data(), text.size(), offset);
    const auto there = offset < size() ? expected_.substr(offset, text.size()) : std::string();
    EXPECT_EQ(count, static_cast<ssize_t>(there.size()));
    text.resize(std::max<ssize_t>(count, 0));
    EXPECT_TRUE(text == there);
    return fmt::format("read {} {}", offset, text.size());
  }
  std::string compareSize() {
    struct stat status{};
    EXPECT_EQ(below(2) == 0 ? ::fstat(descriptor_, &status) : ::stat(path_.c_str(), &status), 0);
    EXPECT_EQ(status.st_size, size());
    return "stat";
  }
  std::string readMapped() {
    if (size() == 0) return "no mapping";
    ChildProcess child([&] {
      auto* const map = static_cast<char*>(::mmap(nullptr, expected_.size(), PROT_READ, MAP_SHARED, descriptor_, 0));
      return map != MAP_FAILED && std::string_view(map, expected_.size()) == expected_ &&
             ::munmap(map, expected_.size()) == 0;
    });
    EXPECT_TRUE(child.succeeds());
    return "mapped read";
  }
  Inode inode() const {
    struct stat status{};
    EXPECT_EQ(::stat(path_.c_str(), &status), 0);
    return status.st_ino;
  }
  std::string beginSending() {
    const auto edit = outgoing_ ? std::nullopt : rig_.edits->ofItem(inode());
    if (!edit) return "nothing to send";
    std::promise<std::optional<Edit>> begun;
    rig_.edits->beginSending(edit->id, [&](std::optional<Edit> now) { begun.set_value(std::move(now)); });
    sent_ = begun.get_future().get();
    if (!sent_) return "no longer to send";
    const auto outgoing = rig_.edited->beginSending(sent_->contents, "file");
    if (!outgoing) {
      EXPECT_TRUE(outgoing.error().is(POSIX_ERROR_DOMAIN, EBUSY)) << outgoing.error().localizedDescription();
      rig_.edits->abandonSending(sent_->id);
      return "busy";
    }
    outgoing_ = *outgoing;
    sentText_ = textOf(outgoing_->path);
    // Often nothing happens until it is there.
    return below(2) == 0 ? "begin sending" : "begin sending, " + endSending();
  }
  // What was sent is as it was when it began, and the server has it now, or not.
  std::string endSending() {
    if (!outgoing_) return "not sending";
    EXPECT_TRUE(textOf(outgoing_->path) == sentText_);
    const auto outgoing = *std::exchange(outgoing_, std::nullopt);
    if (below(2) == 0) {
      rig_.edits->abandonSending(sent_->id);
      rig_.edited->endSending(outgoing, {}, false);
      return "sending failed";
    }
    const auto item = rig_.extension.addFile("1", ROOT_CONTAINER.text, "file", sentText_, ++version_);
    const std::uint32_t fields =
        sent_->fields & EDIT_CREATED ? EDIT_CREATED | EDIT_PLACED | EDIT_CONTENTS : EDIT_CONTENTS;
    std::promise<LocalEdits::Outcome> saved;
    rig_.edits->succeeded(*sent_, fields, {.item = item, .hasGivenContents = true},
                          [&](const LocalEdits::Outcome& outcome) { saved.set_value(outcome); });
    const auto outcome = saved.get_future().get();
    rig_.edited->endSending(outgoing, outcome, true);
    return outcome.isContentsDone ? "sent, " + goOnClean() : "sent, and more to send";
  }
  // What can happen only to a file that is as on the server.
  std::string goOnClean() {
    const auto choice = below(3);
    if (choice == 2) return read();
    const auto done = choice == 0 ? evict() : changeElsewhere();
    return done + ", " + read();
  }
  // By another device, when nothing of ours is in the way.
  std::string changeElsewhere() {
    const auto isEdited = [&] { return outgoing_ || rig_.edits->ofItem(inode()); };
    // The kernel may still have pages of a mapping to write.
    if (isEdited() || ::fsync(descriptor_) != 0 || isEdited()) return "not changed elsewhere";
    expected_ = someText(below(LIMIT));
    rig_.announce({rig_.extension.addFile("1", ROOT_CONTAINER.text, "file", expected_, ++version_)});
    ++changes_;
    // What was sent just before may be in the way for a moment.
    struct stat status{};
    EXPECT_TRUE(eventually([&] { return ::fstat(descriptor_, &status) == 0 && status.st_size == size(); }));
    return fmt::format("changed elsewhere {}", expected_.size());
  }
  // What was sent becomes the downloaded copy a moment later.
  std::string evict() {
    const auto number = inode();
    std::optional<Error> refused;
    eventually([&] {
      refused = rig_.contents->evict(number);
      return !refused || rig_.edits->ofItem(number);
    });
    if (refused) return "not evicted";
    ++evictions_;
    return "evicted";
  }
  std::string reopen() {
    ::close(descriptor_);
    if (below(8) > 0) return open(), "reopen";
    open(O_TRUNC);
    expected_.clear();
    return "reopen empty";
  }
  // Perhaps in the middle of sending, of which nobody knows afterwards what became of it.
  std::string remount() {
    ::close(descriptor_);
    const bool isSending = outgoing_.has_value();
    outgoing_.reset();
    sent_.reset();
    rig_.restart();
    open();
    return isSending ? "remount while sending" : "remount";
  }
  std::string synchronise() {
    EXPECT_EQ(::fsync(descriptor_), 0);
    return "fsync";
  }
  static std::string textOf(const std::string& path) {
    std::string text(LIMIT + 1, '\0');
    const int file = ::open(path.c_str(), O_RDONLY);
    const auto count = ::read(file, text.data(), text.size());
    ::close(file);
    text.resize(std::max<ssize_t>(count, 0));
    return text;
  }

  MountRig& rig_;
  std::mt19937_64 random_;
  const std::string path_;
  int descriptor_ = -1;
  std::string expected_;
  std::optional<EditedContents::Outgoing> outgoing_;
  std::optional<Edit> sent_;
  std::string sentText_;
  int version_ = 0;
  int changes_ = 0;
  int evictions_ = 0;
};

std::uint64_t numberFromEnvironment(const char* name, std::uint64_t otherwise) {
  const char* const text = std::getenv(name);
  return text ? std::strtoull(text, nullptr, 10) : otherwise;
}

// VONDLE_RANDOM_WRITES acts from the seed VONDLE_SEED. A million take minutes.
TEST(MountRandomTest, AFileStaysWhatItWouldBeOnALocalDisk) {
  const auto acts = numberFromEnvironment("VONDLE_RANDOM_WRITES", 20'000);
  const auto seed = numberFromEnvironment("VONDLE_SEED", 1);
  ScratchFolder scratch;
  MountRig rig(scratch);
  rig.makeWritable();
  rig.start();
  RandomWrites writes(rig, seed);
  std::deque<std::string> last;
  for (std::uint64_t i = 0; i < acts && !testing::Test::HasFailure(); ++i) {
    last.push_back(fmt::format("{} {}", i, writes.act()));
    if (last.size() > 40) last.pop_front();
    if (i % 64 == 0) writes.compareAll();
  }
  writes.compareAll();
  EXPECT_THAT(lostFiles(scratch.path() + "/edits"), testing::IsEmpty()) << "what was sent was taken for lost";
  fmt::print("{} changes by another device, {} evictions\n", writes.changesElsewhere(), writes.evictions());
  if (!testing::Test::HasFailure()) return;
  fmt::print("seed {}, the last acts:\n", seed);
  for (const auto& act : last) fmt::print("{}\n", act);
}

}  // namespace
}  // namespace vondle
