// Which of the panel's queues a handler belongs to; also the registry's
// `queue` column.
#pragma once

typedef int HandlerQueue;

// The queue a delivery's handler pass runs.
const HandlerQueue MH_QUEUE_DELIVERY = 2;

// Value of a record whose queue is not yet set.
const HandlerQueue MH_QUEUE_UNSET = 5;
