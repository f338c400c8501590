#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "fileprovider/enumerator.h"

namespace vondle {

// What a listing told its observer. Anything after the finish is a mistake that throws.
class RecordingEnumerationObserver final : public EnumerationObserver {
 public:
  void didEnumerateItems(std::vector<Item> page) override {
    requireOpen();
    ++pages;
    for (Item& item : page) items.push_back(std::move(item));
  }
  void finishEnumeratingUpToPage(std::optional<Page> nextPage) override {
    requireOpen();
    finished = true;
    next = std::move(nextPage);
  }
  void finishEnumeratingWithError(Error itsError) override {
    requireOpen();
    error = std::move(itsError);
  }

  [[nodiscard]] bool isOpen() const { return !finished && !error; }

  int pages = 0;
  std::vector<Item> items;
  bool finished = false;
  std::optional<Page> next;
  std::optional<Error> error;

 private:
  void requireOpen() const {
    if (!isOpen()) throw std::logic_error("a listing goes on after its end");
  }
};

// What an enumeration of changes told its observer, also as one list of words in the order of the calls. A second
// finish is a mistake that throws.
class RecordingChangeObserver final : public ChangeObserver {
 public:
  struct End {
    SyncAnchor anchor;
    bool moreComing;
    friend bool operator==(const End&, const End&) = default;
  };

  void didUpdateItems(std::vector<Item> items) override {
    std::string call = "update";
    for (const Item& item : items) call += " " + item.itemIdentifier.text;
    calls.push_back(call);
    for (Item& item : items) updated.push_back(std::move(item));
  }
  void didDeleteItemsWithIdentifiers(std::vector<ItemIdentifier> identifiers) override {
    std::string call = "delete";
    for (const ItemIdentifier& identifier : identifiers) call += " " + identifier.text;
    calls.push_back(call);
  }
  void finishEnumeratingChangesUpToSyncAnchor(SyncAnchor anchor, bool moreComing) override {
    requireOpen();
    calls.push_back("finish " + anchor + (moreComing ? " more" : ""));
    end = End{std::move(anchor), moreComing};
  }
  void finishEnumeratingWithError(Error itsError) override {
    requireOpen();
    calls.emplace_back("error");
    error = std::move(itsError);
  }

  [[nodiscard]] bool isOpen() const { return !end && !error; }

  std::vector<std::string> calls;
  std::vector<Item> updated;
  std::optional<End> end;
  std::optional<Error> error;

 private:
  void requireOpen() const {
    if (!isOpen()) throw std::logic_error("an enumeration of changes ends twice");
  }
};

}  // namespace vondle
