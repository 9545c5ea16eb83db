// A status dump as a manager writes it, without the cards.
#pragma once

namespace qnmctl {

inline constexpr char sample_dump[] = R"(*** 2023-11-14 14:01:02 qnm status dump (v1)
  - State
    Init flag : ON
    Start flag: ON
    Fini flag : OFF
    Log level : INFO
 
  - Port information
    + Port0
      MAC addr  : 020000000001
      Link state: UP
      Total down: 0
    + Port1
      MAC addr  : 0a0000000002
      Link state: UP
      Total down: 0
 
  - QN card num
    qnsv total: 2
    qnio total: 4
 
    G-ID SV num IO num
    ---- ------ ------
      10      1      1
      20      1      1
      30      0      1
      40      0      1
  - Memory
          Name     In Use      Alloc       Free
    ---------- ---------- ---------- ----------
          qnsv          2          2          0
          qnio          4          4          0
       bl_node          0          0          0
      evt_node          0         26         26
     wreg_node          6          6          0
        idlist          0          0          0
        cbinfo          6          6          0
         addrs          0          0          0
 
  - Callback statistics
    Total called  : 26
    Total returned: 26
 
  - Event statistics
    QNM_EVT_NEWDEVINFO        : 6
    QNM_EVT_UPDATEDEVINFO     : 10
    QNM_EVT_CONNECTIONCHANGE  : 0
    QNM_EVT_MAJORMINORERROR   : 0
    QNM_EVT_PATHSTATECHANGE   : 0
    QNM_EVT_CHANNELSTATECHANGE: 10
 
  - Quillnet message send/receive statistics
    + Port0
      QNM_STATS_R_TOTAL    : 53
      QNM_STATS_R_DEV      : 17
      QNM_STATS_R_DEV40    : 36
      QNM_STATS_R_NOTI     : 0
      QNM_STATS_R_NOTI40   : 0
      QNM_STATS_R_COMP     : 0
      QNM_STATS_T_TOTAL    : 0
      QNM_STATS_T_VLANSET  : 0
      QNM_STATS_T_REGR     : 0
      QNM_STATS_T_REGW     : 0
      QNM_STATS_T_RESET    : 0
      QNM_STATS_T_MMS      : 0
    + Port1
      QNM_STATS_R_TOTAL    : 41
      QNM_STATS_R_DEV      : 17
      QNM_STATS_R_DEV40    : 24
      QNM_STATS_R_NOTI     : 0
      QNM_STATS_R_NOTI40   : 0
      QNM_STATS_R_COMP     : 0
      QNM_STATS_T_TOTAL    : 0
      QNM_STATS_T_VLANSET  : 0
      QNM_STATS_T_REGR     : 0
      QNM_STATS_T_REGW     : 0
      QNM_STATS_T_RESET    : 0
      QNM_STATS_T_MMS      : 0
 
  - API error code
    QNM_API_SUCCESS      : 33
    QNM_API_EINVAL       : 0
    QNM_API_ERANGE       : 0
    QNM_API_ENOENT       : 26
    QNM_API_ENOLINK      : 0
    QNM_API_ENOMEM       : 0
    QNM_API_EPROTO       : 0
    QNM_API_ETIMEDOUT    : 0
    QNM_API_EBUSY        : 0
    QNM_API_ENOSYS       : 12
 
  - API error code detail
    qnm_get_qnsvids()
      QNM_API_SUCCESS      : 0
      QNM_API_EINVAL       : 0
      QNM_API_ERANGE       : 0
      QNM_API_ENOENT       : 0
      QNM_API_ENOLINK      : 0
      QNM_API_ENOMEM       : 0
      QNM_API_EPROTO       : 0
      QNM_API_ETIMEDOUT    : 0
      QNM_API_EBUSY        : 0
      QNM_API_ENOSYS       : 0
 
  - Black list ids
    0x020000003000
 
  - Config parameters
    ether_port0_name              : qnm0
    ether_port1_name              : qnm1
    broadcast_mac                 : 0300ffffffff
)";

}  // namespace qnmctl
