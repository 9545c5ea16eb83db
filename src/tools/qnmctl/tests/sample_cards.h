// Card records that tests start from.
#pragma once

#include <algorithm>
#include <iterator>

#include "records/fields.h"

namespace qnmctl {

inline qnm_qnsv_t sample_server() {
    qnm_qnsv_t record{};
    record.esv_com_dev.ecd_id = 0x020000001000;
    record.esv_com_dev.ecd_state[0][0] = 1;
    record.esv_com_dev.ecd_recvtime[0][0] = 1'700'000'000'123;
    record.esv_com_dev.ecd_vlan_id = 10;
    const std::uint8_t mac[] = {0x02, 0, 0, 0, 0x10, 0};
    std::copy(std::begin(mac), std::end(mac), record.esv_com_dev.ecd_macaddr);
    return record;
}

inline qnm_qnio_t sample_device() {
    qnm_qnio_t record{};
    record.eio_com_dev.ecd_id = 0x020000003000;
    record.eio_com_dev.ecd_type = 1;
    record.eio_com_dev.ecd_state[1][1] = 1;
    record.eio_com_dev.ecd_vlan_id = 30;
    record.eio_com_dev.ecd_ver = 1;
    record.eio_mr_resource_num = 7;
    record.eio_vendor_id = 0x8086;
    record.eio_class_code = 0x020000;
    return record;
}

}  // namespace qnmctl
