#include "apps/camera/interrupted_films.h"

#include <algorithm>
#include <set>

#include <vesk/dispatch_queue.h>
#include <vesk/recording_leftovers.h>
#include "apps/camera/last_item.h"
#include "apps/camera/text.h"

namespace vesk::camera {
namespace {

/// Finishes all that recordings of one film left.
void finish(const std::string& id, const std::string& file, bool showsIt, MessageList& messages) {
  messages.remove(id);
  DispatchQueue::globalQueue()->async([id, file, showsIt, &messages] {
    const auto finished = finishLeftoversOf(file);
    DispatchQueue::mainQueue()->async([id, finished, showsIt, &messages] {
      for (const FinishedLeftover& film : finished) {
        if (film.error) messages.show({id, Message::Kind::kProblem, sentences(film.error), {}});
        if (!film.file.empty() && showsIt) showInFileManager(film.file);
      }
    });
  });
}

}  // namespace

void offerInterruptedFilms(const std::string& folder, MessageList& messages) {
  DispatchQueue::globalQueue()->async([folder, &messages] {
    std::set<std::string> files;
    for (const RecordingLeftover& leftover : leftoversIn(folder))
      if (!leftover.isInUse && !leftover.movie.empty()) files.insert(leftover.file);
    if (files.empty()) return;
    DispatchQueue::mainQueue()->async([files, &messages] {
      for (const std::string& file : files) {
        const std::string id = "interrupted " + file;
        messages.show({id,
                       Message::Kind::kNote,
                       _("A film was interrupted; it is complete but for its last second"),
                       {{_("Keep"), [=, &messages] { finish(id, file, false, messages); }},
                        {_("Show"), [=, &messages] { finish(id, file, true, messages); }}}});
      }
    });
  });
}

}  // namespace vesk::camera
