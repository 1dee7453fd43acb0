// The controller series from its model and type names (pure).
#include <string.h>

#include "device/identification.h"
#include "log/debug_log.h"

namespace {

struct SeriesMatch {
    int32_t code;
    const char* name;
};

bool Has(const char* text, const char* part) {
    return strstr(text, part) != nullptr;
}
bool HasChar(const char* text, char c) {
    return strchr(text, c) != nullptr;
}

// The rows in the order they are tried; the first that matches decides.
SeriesMatch MatchSeries(const char* m, const char* t) {
    if (Has(t, "LOM") && Has(m, "K2593")) return {SERIES_LOMBAR, "SERIES_LOMBAR"};
    if (HasChar(t, 'W') && Has(m, "JOP7555")) return {SERIES_JORVAKS, "SERIES_JORVAKS"};
    if (Has(t, "DAR") && Has(m, "DARELYN")) return {SERIES_DARELYN, "SERIES_DARELYN"};
    if (HasChar(t, 'R') && Has(m, "KVR-4455R")) return {SERIES_DARELYN, "SERIES_DARELYN"};
    if (Has(t, "TOBIN4555") && Has(m, "TOBIN4555")) return {SERIES_TOBIN4555, "SERIES_TOBIN4555"};
    if (Has(t, "TOB4455") && Has(m, "TOB4455")) return {SERIES_TOB4455, "SERIES_TOB4455"};
    if (Has(t, "Melka") && Has(m, "Melka")) return {SERIES_MELKA, "SERIES_MELKA"};
    if (Has(t, "FEN") && Has(m, "FEN")) return {SERIES_FEN, "SERIES_FEN"};
    if (Has(t, "GLR")) {
        if (Has(m, "GLR725D") || Has(m, "GLR725F"))
            return {SERIES_GLR_7255_W353HS, "SERIES_GLR_7255_W353HS"};
        if (Has(m, "GLR")) return {SERIES_GLR_7255, "SERIES_GLR_7255"};
    }
    if (Has(t, "PCAP40") && Has(m, "P40")) return {SERIES_PCAP_9015, "SERIES_PCAP_9015"};
    if (Has(t, "PCAP11")) {
        if (Has(m, "P11")) return {SERIES_PCAP_9015, "SERIES_PCAP_9015"};
        if (Has(m, "Lantre")) return {SERIES_PCAP_9085, "SERIES_PCAP_9085"};
    }
    if (Has(t, "PCAP40") && Has(m, "Lantre")) return {SERIES_PCAP_9085, "SERIES_PCAP_9085"};
    if (Has(t, "PCAP4") && Has(m, "PCAP")) return {SERIES_PCAP_4155, "SERIES_PCAP_4155"};
    if (Has(t, "PCAP4155")) return {SERIES_PCAP_4155, "SERIES_PCAP_4155"};
    if (Has(t, "Halma4455") && (Has(m, "Halma") || Has(m, "PCAP")))
        return {SERIES_PCAP_4455, "SERIES_PCAP_4455"};
    if (Has(t, "PCAP6")) return {SERIES_PCAP_6555, "SERIES_PCAP_6555"};
    if (Has(t, "PCAP0415")) return {SERIES_PCAP_0415, "SERIES_PCAP_0415"};
    if (Has(t, "PCAP2")) return {SERIES_PCAP_2, "SERIES_PCAP_2"};
    return {SERIES_UNKNOWN, "SERIES_UNKNOWN"};
}

}  // namespace

int32_t AllocateSeries(const char* model, const char* type) {
    SeriesMatch match = MatchSeries(model ? model : "", type ? type : "");
    TLOG(LOG_MAIN, "AllocateSeries: %s", match.name);
    return match.code;
}
