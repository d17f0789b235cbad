/*
 * The receive framing shared by every receive loop (to be filled).
 */
#include "engine/engine.h"

size_t at_rx_room(const struct at_rx_buffer *rx) { return AT_RX_BUF_SIZE - rx->fill; }

void at_rx_frame(struct at_rx_buffer * /*rx*/, size_t /*received*/, at_rx_deliver_fn /*deliver*/,
                 at_rx_too_long_fn /*too_long*/, void * /*ctx*/) {}
