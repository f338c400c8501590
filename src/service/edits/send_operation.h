#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/completion.h"
#include "fileprovider/replicated_extension.h"
#include "platform/progress.h"
#include "platform/scheduler.h"
#include "service/contents/edited_contents.h"
#include "service/edits/local_edits.h"
#include "service/edits/send_plan.h"

namespace vondle {

// Whom sending deals with.
struct SendServices {
  ReplicatedExtension& extension;
  std::shared_ptr<LocalEdits> edits;
  std::shared_ptr<EditedContents> contents;
  // Reads the server's changes and completes with what went wrong there. The extension says of whatever it could not
  // look up that there is no such item, also when the server is out of reach; this tells the two apart.
  std::function<void(Completion<std::optional<Error>>)> sync;
  Scheduler& scheduler;
};

struct SendTask {
  EditID edit = 0;
  std::int64_t generation = 0;  // of the edit when this was decided
  SendStep step = SendStep::create;
  bool isAside = false;
};

struct SendResult {
  enum class Ending {
    done,     // and recorded
    changed,  // or cancelled: nothing is known to have been sent, to be decided anew
    later,    // it is not time yet, for a reason whose end nobody tells
    failed,   // with the error; not recorded yet
  };
  Ending ending = Ending::changed;
  Edit sent;
  std::optional<Error> error;
  // What the server has now are not the contents that were sent, which it keeps as another file.
  bool hasClashed = false;
  Inode inode = 0;  // of hasClashed
};

// Does one step for one edit: asks the extension and records what became of it. Runs and completes on the queue given.
// Kept alive by what it waits for.
//
// - What may be there already, because nobody knows how an earlier sending ended, is looked for first: a folder of that
//   name, or a file with the contents that were sent then. It does not clash with itself, and what programs did with it
//   since then is done there, too.
// - When the name of an item that is made turns out to be taken, it is looked at: a folder of that name, or a file with
//   the same contents, is the one that was to be made. Anything else keeps the name, and ours gets another.
// - A folder that cannot go where it is to go because the server has that below it stays where the server has it.
// - Deleting means moving to the trash, never more: what somebody else has put there meanwhile stays there. A folder is
//   deleted when the server lists nothing in it; what the user has never seen is not taken along. One that the user put
//   into the trash goes with all that is in it.
class SendOperation : public std::enable_shared_from_this<SendOperation> {
 public:
  SendOperation(const SendServices& services, std::shared_ptr<Queue> queue, SendTask task,
                Completion<SendResult> completion);

  void start();
  // Any thread.
  void cancel() { progress_->cancel(); }
  [[nodiscard]] const std::shared_ptr<Progress>& progress() const { return progress_; }
  [[nodiscard]] const SendTask& task() const { return task_; }

 private:
  using Ending = SendResult::Ending;

  void begun(std::optional<Edit> edit);
  bool freeze();

  // A deleted folder: not what others have put in it.
  [[nodiscard]] bool goesAlone() const;
  [[nodiscard]] bool mayBeThere() const;
  void findOut();
  void found(Result<std::vector<Item>> found);
  void nothingThere();
  void begin();
  void sendNow(const Result<void>& noted);

  void create();
  void created(Result<SavedItem> result);
  void sendChange();
  void modify(std::uint32_t fields, ItemIdentifier parent, Completion<Result<SavedItem>> completion);
  void modified(Result<SavedItem> result);

  void look();
  void looked(Result<std::vector<Item>> found);
  void folderFound(Item folder);
  void lookAbove(ItemIdentifier folder, int depth = 0);
  void compare(Item found);
  void fetched(Result<FetchedContents> result);
  void compared(bool isSame, Item found);

  void listFolder();
  void folderListed(Result<std::vector<Item>> inFolder);
  void moveToTrash();
  void trashed(Result<SavedItem> result);

  void checkServer(Error error);
  void serverChecked(Error error, std::optional<Error> serverError);
  void itemChecked(Error error, const Result<Item>& item);
  void lookForTarget(Error error);
  void listTarget(Error error);
  void targetGone();
  void confirmThatGone(Error error);
  void gone();

  void succeeded(SavedItem saved);
  void renameAside();
  void failed(Error error);
  void finish(Ending ending);

  // The answer of any thread becomes a step on the queue.
  template <class Function>
  [[nodiscard]] auto onQueue(Function function);
  [[nodiscard]] LocalEdits::Done whenRecorded();
  void follow(const std::shared_ptr<Progress>& work) { progress_->addChild(work, 1); }

  const SendServices services_;
  const std::shared_ptr<Queue> queue_;
  const SendTask task_;
  const std::shared_ptr<Progress> progress_ = Progress::make(1);
  Completion<SendResult> completion_;
  Edit edit_;  // as it is sent: its place is where the server is to have it
  std::optional<EditedContents::Outgoing> outgoing_;
  bool isFindingOut_ = false;   // edit_ is as it was sent then
  bool isUncertain_ = false;    // whether the server has it now
  std::optional<Error> clash_;  // the server's word that the name is taken
  SendResult result_;
};

}  // namespace vondle
