// Names and messages of the family's status codes.
#include "imgcolor.h"

namespace {

struct StatusText {
  int32_t status;
  const char *name;
  const char *message;
};

constexpr StatusText kStatuses[] = {
    {RC_SUCCESS, "RC_SUCCESS", "success"},
    {RC_NO_MEMORY, "RC_NO_MEMORY", "not enough memory"},
    {RC_NO_BITMAP, "RC_NO_BITMAP", "no bitmap, no pixel memory or an unreadable palette"},
    {RC_UNSUPPORTED_BITMAP, "RC_UNSUPPORTED_BITMAP", "this kind of bitmap is not supported by the operation"},
    {RC_INVALID_PARAMETER, "RC_INVALID_PARAMETER", "an argument is out of its range"},
    {RC_INVALID_STRUCT_SIZE, "RC_INVALID_STRUCT_SIZE",
     "the record's declared size is not one the family knows"},
    {RC_NULL_OPTIONS, "RC_NULL_OPTIONS", "the options record is missing or empty"},
    {RC_SIGNED_DATA_NOT_SUPPORTED, "RC_SIGNED_DATA_NOT_SUPPORTED",
     "signed samples are not supported by the operation"},
    {RC_GRAY32_NOT_SUPPORTED, "RC_GRAY32_NOT_SUPPORTED", "32-bit gray bitmaps are not supported"},
};

const StatusText *Find(int32_t status) {
  for (const StatusText &s : kStatuses)
    if (s.status == status) return &s;
  return nullptr;
}

}  // namespace

extern "C" const char *Q_StatusName(int32_t status) {
  const StatusText *s = Find(status);
  return s ? s->name : "RC_UNKNOWN";
}

extern "C" const char *Q_StatusMessage(int32_t status) {
  const StatusText *s = Find(status);
  return s ? s->message : "unknown status";
}
