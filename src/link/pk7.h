// PK7 frames: framing, byte stuffing and the ready-made command frames.
#pragma once

#include <cstddef>
#include <list>
#include <vector>

inline constexpr char PK7_START = 0x7E;
inline constexpr char PK7_END = 0x7F;
inline constexpr char PK7_ESCAPE = 0x7D;
inline constexpr size_t PK7_MAX_LENGTH = 512;  // largest value of the length field

int form_pk7_packet_txt(char type, const char* data, size_t len, std::vector<char>& out);
int form_pk7_packet_binary(char type, char* data, size_t len, std::vector<char>& out);
void byte_stuffing(std::list<char>& bytes);

// Ready-made frames, writable: "?" bytes are placeholders filled in place
// before queuing. Each array is padded with NUL bytes to a fixed slot; the
// matching _len constant is the number of bytes sent.
inline constexpr size_t PK7_SLOT = 24;
#define PK7_READY_FRAME(name)   \
    extern char name[PK7_SLOT]; \
    extern const size_t name##_len;
PK7_READY_FRAME(cmd_sf)
PK7_READY_FRAME(cmd_jf)
PK7_READY_FRAME(cmd_ec)
PK7_READY_FRAME(cmd_cf1)
PK7_READY_FRAME(cmd_cf11)
PK7_READY_FRAME(cmd_ul_1)
PK7_READY_FRAME(cmd_ul_2)
PK7_READY_FRAME(cmd_re)
PK7_READY_FRAME(cmd_fr)
PK7_READY_FRAME(cmd_ep)
PK7_READY_FRAME(cmd_ad)
PK7_READY_FRAME(cmd_efx)
PK7_READY_FRAME(cmd_efxx)
PK7_READY_FRAME(cmd_eax)
PK7_READY_FRAME(cmd_eaxx)
PK7_READY_FRAME(cmd_er)
PK7_READY_FRAME(xxpgN_1)
PK7_READY_FRAME(xxpgNN_1)
PK7_READY_FRAME(xxpg1_0)
PK7_READY_FRAME(kkN_1)
PK7_READY_FRAME(kkN_0)
PK7_READY_FRAME(ss1_x)
PK7_READY_FRAME(ss2_x)
PK7_READY_FRAME(kt_N)
PK7_READY_FRAME(cmd_pl)
PK7_READY_FRAME(cmd_ls)
PK7_READY_FRAME(cmd_dl)
PK7_READY_FRAME(cmd_mh)
PK7_READY_FRAME(acknowledge_OK)
PK7_READY_FRAME(acknowledge_AN1)
PK7_READY_FRAME(acknowledge_AN2)
PK7_READY_FRAME(acknowledge_AN5)
#undef PK7_READY_FRAME
