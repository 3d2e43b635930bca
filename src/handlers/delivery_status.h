// DeliveryStatus: the handler pass's verdict on the whole message.
#pragma once

enum DeliveryStatus {
    DS_OK = 0,
    DS_DISCARDED = 1,
    DS_BAD_DESTINATION = 11,
    DS_REJECTED = 31,
    DS_RESOURCES_LIMITED = 51,
    DS_TIME_EXPIRED = 52,
    DS_DISK_EXHAUSTED = 53,
    DS_MESSAGE_READ_ERROR = 54,
    DS_CONFIG_READ_ERROR = 55,
    DS_CONNECTION_ERROR = 56,
    DS_CONGESTED = 61,
    DS_INTERNAL_ERROR = 81,
    DS_BAD_ENVELOPE = 91,
};
