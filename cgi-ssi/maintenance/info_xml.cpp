// "_info.xml": the line rates and whether a disk is mounted, for tools on
// the LAN that poll the gateway.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "cgi_output.h"
#include "cgic.h"
#include "qm_cgi_state.h"
#include "qm_config.h"
#include "qm_maintenance.h"
#include "quelm_guard.h"
#include "quelm_owned.h"
#include "quelm_text.h"

namespace cgissi::maintenance {
namespace {

// The document is built into at most this many bytes.
constexpr std::size_t kInfoDocumentSize = 4096;
// Rate reported for an Ethernet WAN (DSL off, LAN port 2 on).
constexpr int kEthernetRate = 1000000;
constexpr std::size_t kStorageObjectSize = 64;

int int_property(const char *object, const char *property) {
    int value = 0;
    if (GetPropertyIntValue(object, property, &value) != 0) return 0;
    return value;
}

int channel_sum(const char *object) {
    return int_property(object, "InterleavedChannel") + int_property(object, "FastChannel");
}

// compat: every round looks at the item numbered with the count, not with
// the round, as the product always did; pages only ever had one disk.
int GetHDConnected() {
    quelm::MallocString list(QM_DAT_getobjcount("Storage_Item"));
    int count = 0;
    if (list) {
        quelm::split(list.get(), ',', [&](std::string_view item) {
            if (!item.empty() && item.front() >= '0' && item.front() <= '9') ++count;
        });
    }
    char object[kStorageObjectSize];
    for (int round = 0; round < count; ++round) {
        std::snprintf(object, sizeof object, "Storage_Item_%d_Status", count);
        quelm::MallocString state(QM_DAT_getobjproperty(object, "State"));
        if (state && std::strstr(state.get(), "ConnectedMounted") != nullptr) return 1;
    }
    return 0;
}

void serve_info() {
    QM_Cfg_Init(1);
    QM_STATUS_set(1);
    int up = channel_sum("WANDSLLinkStatus_UpBitrates");
    int down = channel_sum("WANDSLLinkStatus_DownBitrates");
    if (int_property("WANDSLInterfaceConfig", "Enable") == 0 && int_property("LANEthernetInterface_2", "Enable") != 0) {
        up = kEthernetRate;
        down = kEthernetRate;
    }
    if (int_property("DOCSIS_Status", "Enable") != 0) {
        down = int_property("DOCSIS_Management_Interfaces_3", "Speed");
        up = int_property("DOCSIS_Management_Interfaces_4", "Speed");
    }
    const int disk = GetHDConnected();
    char document[kInfoDocumentSize];
    // compat: the document and its headers byte for byte, as LAN tools parse them.
    int length = std::snprintf(document, sizeof document,
                               "<?xml version=\"1.0\" encoding=\"ISO-8859-1\" standalone=\"yes\" ?>\n<Vaylinfo>\n"
                               "<version>1.0</version>\n<lineinfo>\n<version>1.0</version>\n"
                               "<UpstreamCurrRate>%d</UpstreamCurrRate>\n<DownstreamCurrRate>%d</DownstreamCurrRate>\n"
                               "</lineinfo>\n<usbinfo>\n<version>1.0</version>\n"
                               "<HardDriveConnected>%d</HardDriveConnected>\n</usbinfo>\n</Vaylinfo>\n",
                               up, down, disk);
    if (length < 0) length = 0;
    if (static_cast<std::size_t>(length) >= sizeof document) length = sizeof document - 1;
    cgi_out_printf("Cache-Control: no-cache,no-store\r\nPragma: no-cache\r\nConnection: close\r\n"
                   "Content-Type: text/xml\r\nContent-Length: %d\r\n\r\n", length);
    cgi_out_write(document, static_cast<std::size_t>(length));
    cgiFreeResources();
    QM_Cfg_Free();
}

}  // namespace
}  // namespace cgissi::maintenance

extern "C" int info_xml_cgi(int, char **) {
    return quelm::guarded(0, __func__, [&] {
        cgissi::maintenance::serve_info();
        return 0;
    });
}
