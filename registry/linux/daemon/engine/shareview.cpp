#include "daemon/engine/shareview.h"

namespace obregd {

namespace {

ShareViews views;

} // namespace

const ShareViews& shareViews() { return views; }

void setShareViews(ShareViews shares) { views = std::move(shares); }

} // namespace obregd
