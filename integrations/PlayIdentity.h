// What every play of a player adapter's session is reported as: the host's
// options, copied at attach so that its strings need not outlive the call.
// A NULL field stays nothing, apart from "".
#ifndef QXLOG_INTEGRATIONS_PLAYIDENTITY_H_
#define QXLOG_INTEGRATIONS_PLAYIDENTITY_H_

#include <optional>
#include <string>

namespace qxlog::integrations {

struct PlayIdentity {
  std::optional<std::string> movieId;
  std::optional<std::string> viewSource;
  std::optional<std::string> videoType;
  bool isDownload = false;
  std::optional<std::string> isPcdn;
};

// From either adapter's options (QXLogGstOptions, QXLogMpvOptions), which
// share their fields; none for NULL.
template <typename Options>
PlayIdentity identityOf(const Options* options) {
  auto copied = [](const char* text) {
    return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
  };
  PlayIdentity identity;
  if (options == nullptr) return identity;
  identity.movieId = copied(options->movie_id);
  identity.viewSource = copied(options->view_source);
  identity.videoType = copied(options->video_type);
  identity.isDownload = options->is_download;
  identity.isPcdn = copied(options->is_pcdn);
  return identity;
}

}  // namespace qxlog::integrations

#endif  // QXLOG_INTEGRATIONS_PLAYIDENTITY_H_
