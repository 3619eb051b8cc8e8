// The out-of-line part of the event family: dispatching a fired event.
#include "lib/event.h"

void KyEvent::Dispatch() const {
    callback_->Dispatch(Fired);
}
