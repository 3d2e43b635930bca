// What a delivery program's exit code means to the run.
#include "driver/delivery_codes.h"

int mapDeliveryCode(int code) {
    switch (code) {
    case 0:
        return DR_DELIVERED;
    case 77:
        return DR_OVER_QUOTA;
    case 99:
        return DR_DELIVERED_SKIP_REST;
    case -1:
    case 65:
    case 70:
    case 76:
    case 78:
    case 100:
    case 112:
        return DR_PERMANENT;
    default:
        return DR_TEMPORARY;
    }
}
