// Result codes shared by the deliveries; the exit table (main_exits.h) turns
// the final one into the transfer agent's language.
#pragma once

// DeliveryResult values.
enum {
    DR_DELIVERED = 0,
    DR_OVER_QUOTA = 77,
    DR_DELIVERED_SKIP_REST = 99,
    DR_PERMANENT = 100,
    DR_TEMPORARY = 111,
    DR_NO_INSTRUCTIONS = 200,
    DR_LOCAL_ERROR = -1,
};

// A delivery program's exit code (or -1 when it could not run) as a DeliveryResult.
int mapDeliveryCode(int code);
