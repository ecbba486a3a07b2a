#include "apps/camera/interrupted_films.h"

#include <set>
#include <vector>

#include <vesk/dispatch_queue.h>
#include <vesk/recording_leftovers.h>
#include "apps/camera/last_item.h"
#include "apps/camera/text.h"

namespace vesk::camera {
namespace {

/// Finishes all that recordings of one film left.
/// By value: the button that asks goes with its message.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
void finish(std::string id, std::string file, bool showsIt, MessageList& messages) {
  messages.remove(id);
  const auto tell =
      messages.presence().whileThere([id, showsIt](MessageList& list, const std::vector<FinishedLeftover>& finished) {
        for (const FinishedLeftover& film : finished) {
          if (film.error) list.show({id, Message::Kind::kProblem, sentences(film.error), {}});
          if (!film.file.empty() && showsIt) showInFileManager(film.file);
        }
      });
  DispatchQueue::globalQueue()->async([file, tell] {
    DispatchQueue::mainQueue()->async([finished = finishLeftoversOf(file), tell] { tell(finished); });
  });
}

void offer(MessageList& messages, const std::set<std::string>& files) {
  for (const std::string& file : files) {
    const std::string id = "interrupted " + file;
    messages.show({id,
                   Message::Kind::kNote,
                   _("A film was interrupted; it is complete but for its last second"),
                   {{_("Keep"), [=, &messages] { finish(id, file, false, messages); }},
                    {_("Show"), [=, &messages] { finish(id, file, true, messages); }}}});
  }
}

}  // namespace

void offerInterruptedFilms(const std::string& folder, MessageList& messages) {
  const auto offerThem = messages.presence().whileThere(offer);
  DispatchQueue::globalQueue()->async([folder, offerThem] {
    std::set<std::string> files;
    for (const RecordingLeftover& leftover : leftoversIn(folder))
      if (!leftover.isInUse && !leftover.movie.empty()) files.insert(leftover.file);
    DispatchQueue::mainQueue()->async([files, offerThem] { offerThem(files); });
  });
}

}  // namespace vesk::camera
