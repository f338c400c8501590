#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "base/time.h"
#include "fileprovider/item.h"
#include "service/edits/edit_table.h"
#include "service/inode.h"
#include "service/replica/item_index.h"
#include "service/replica/local_name.h"

namespace vondle {

// What the kernel and the contents store need to know of an item.
struct ItemAttributes {
  Inode inode = 0;
  Inode parent = 0;  // of the root: itself
  bool isFolder = false;
  bool isListed = false;  // of a folder: all its children are here
  std::int64_t size = 0;
  Timestamp modified;
  std::uint32_t capabilities = 0;  // ItemCapabilities
  unsigned permissions = 0;        // 0 to 0777
  bool keepDownloaded = false;
  std::uint64_t contentTag = 0;  // changes with the content version, and differs between items
};

// The tree in memory, with the names that cannot stand as the server has them. Not thread-safe.
struct TreeState {
  struct OddName {
    std::string serverName;
    NameProblem problem;
  };

  ItemIndex index;
  std::unordered_map<Inode, OddName> oddNames;
  // Items that wait for the name that another item of their folder has, by folder and that name.
  std::map<std::pair<Inode, std::string>, std::set<Inode>> wanted;
  // Folders that were listed since the start and are to be listed again; the kernel may remember their names.
  std::unordered_set<Inode> listedBefore;
  // Items that are to be kept downloaded by their own policy.
  std::unordered_set<Inode> kept;
  // What programs changed and the server has not.
  EditTable edits;

  // A name in the top folder that no item gets. Empty: none.
  std::string reservedTopName;

  // With nothing but the root in it.
  TreeState();

  [[nodiscard]] ItemAttributes attributesOf(ItemIndex::Slot slot) const;
  [[nodiscard]] std::string serverNameOf(ItemIndex::Slot slot) const;
  // To be called after attaching, and before detaching or removing.
  void noteNames(ItemIndex::Slot slot, std::string_view serverName);
  void forgetNames(ItemIndex::Slot slot);

  static ItemIndex::Facts factsOf(const Item& item);
  // Of a time that the server gave. A file's is of whole seconds: some programs compare the fraction, others drop it,
  // and both are to take a thumbnail for that of the file as it is. Times that programs set are shown as they set them.
  static double shownTime(double modified, bool isFolder);
  // Of the owner, the only one that a server's item tells of.
  static std::uint16_t permissionsOf(std::uint32_t fileSystemFlags);
  static std::uint64_t contentTag(std::string_view identifier, std::string_view contentVersion);
  // Of what programs wrote into the private file of this number.
  static std::uint64_t privateContentTag(std::int64_t number);
  // The facts as the user is to see them.
  void applyEdits(std::string_view identifier, ItemIndex::Facts& facts) const;
  // What is known of an item that only this machine has.
  [[nodiscard]] ItemIndex::Facts factsOf(const Edit& edit) const;
  // The item as the user sees it, for one that no news tells of.
  [[nodiscard]] Item itemOf(ItemIndex::Slot slot) const;
  // What is known of the root without asking.
  static Item rootItem();
  [[nodiscard]] Place placeOf(ItemIndex::Slot slot) const;
};

}  // namespace vondle
