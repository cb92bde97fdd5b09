// WaitNotice: one pointer per thread to the innermost notice.
#include "tavo/wait_notice.h"

namespace tavo {
namespace {
thread_local WaitNotice* t_notice = nullptr;
}  // namespace

WaitNotice::WaitNotice(Fn fn, void* arg) : fn_(fn), arg_(arg), outer_(t_notice) { t_notice = this; }

WaitNotice::~WaitNotice() { t_notice = outer_; }

void NoticeWait() {
  WaitNotice* n = t_notice;
  if (!n || n->told_) return;
  n->told_ = true;  // before the call: the function may reach the platform's waits itself
  n->fn_(n->arg_);
}

void NoticeWork(unsigned items) {
  WaitNotice* n = t_notice;
  if (!n || n->told_) return;
  n->work_ += items;
  if (n->work_ > WaitNotice::kLongWork) NoticeWait();
}

}  // namespace tavo
