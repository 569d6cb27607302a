#include "teverrs.h"

namespace {

constexpr TevCodeEntry kPrc[] = {
    {0x00, "OK", " normal return code"},
    {0x04, "INACTIVE", " is inactive"},
    {0x08, "LOGICERR", "Logic error detected"},
    {0x0C, "ABEND", "Function abend"},
    {0x10, "UNRECOVERABLE", "Unrecoverable error"},
    {0x14, "PLISTERR", " function parameter error"},
};

constexpr TevCodeEntry kSrc[] = {
    {0x01, "HUBDWN", "HUB down or error condition"},
    {0x03, "ORECVS", "Outstanding receive (specific)"},
    {0x04, "ORECVA", "Outstanding receive (any)"},
    {0x06, "NORCVR", "No receiver online"},
    {0x09, "NOSTRG", "Unable to get storge"},
    {0x0C, "RCVCNC", "Receive was canceled"},
    {0x0E, "SNDDRC", "Send error, see DRC"},
    {0x0F, "RCVDRC", "Receive error, see DRC"},
    {0x10, "INTDRC", "Internal error, see DRC"},
    {0x11, "RBFSML", "Receive buffer too small"},
    {0x13, "FBKERR", "Error in feedback area"},
    {0x20, "NOPATH", "Remote resource not available"},
    {0x21, "SCFALL", "Security access denied"},
    {0x22, "RTMOUT", "Receive timed out"},
    {0x23, "IBFSML", "Inquiry buffer too small"},
};

constexpr TevCodeEntry kDrc[] = {
    {0x01, "INQERR", "<inquiry error>"},
    {0x02, "SNDRESP", "<?>"},
    {0x03, "NTWRKFAIL", "<network failure>"},
    {0x04, "COMMERROR", "<communications error>"},
    {0x05, "MEMALLOC", "<memory allocation failure>"},
    {0x06, "VAXVMSERROR", "<VAX/VMS error>"},
    {0x07, "NOQUE", "<?>"},
    {0x08, "EMPTYBUF", "<empty buffer(?)>"},
    {0x09, "ILLEGALBUF", "<illegal buffer(?)>"},
    {0x0A, "DELEMPTYBUF", "<?>"},
    {0x0B, "CTHLOST", "<?>"},
    {0x0C, "DELTID", "<?>"},
};

}  // namespace

std::span<const TevCodeEntry> tev_prc_table() { return kPrc; }
std::span<const TevCodeEntry> tev_src_table() { return kSrc; }
std::span<const TevCodeEntry> tev_drc_table() { return kDrc; }

const TevCodeEntry* tev_code_lookup(std::span<const TevCodeEntry> table, int code) {
  for (const auto& e : table)
    if (e.code == code) return &e;
  return nullptr;
}
