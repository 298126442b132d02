// PK7 frames: building text and binary frames, byte stuffing, and the ready-made command frames.
#include "link/pk7.h"

namespace {

constexpr size_t header_size = 6;      // start byte, four length digits, type byte
constexpr size_t length_overhead = 5;  // the length field counts itself and the type byte

// "~", the length field ("0" and the value as three digits), the type byte.
void put_header(char type, size_t payload_len, std::vector<char>& out) {
    const size_t value = payload_len + length_overhead;
    out.push_back(PK7_START);
    out.push_back('0');
    out.push_back(static_cast<char>('0' + value / 100 % 10));
    out.push_back(static_cast<char>('0' + value / 10 % 10));
    out.push_back(static_cast<char>('0' + value % 10));
    out.push_back(type);
}

bool fits(const char* data, size_t len) {
    if (data == nullptr && len != 0) return false;
    return len <= PK7_MAX_LENGTH - length_overhead;
}

bool needs_escape(char c) {
    return c == PK7_ESCAPE || c == PK7_START || c == PK7_END;
}

}  // namespace

int form_pk7_packet_txt(char type, const char* data, size_t len, std::vector<char>& out) {
    if (!fits(data, len)) return 0;
    out.clear();
    out.reserve(header_size + len + 1);
    put_header(type, len, out);
    if (len != 0) out.insert(out.end(), data, data + len);
    out.push_back(PK7_END);
    return 1;
}

int form_pk7_packet_binary(char type, char* data, size_t len, std::vector<char>& out) {
    if (!fits(data, len)) return 0;
    std::list<char> payload;
    if (len != 0) payload.assign(data, data + len);
    byte_stuffing(payload);
    out.clear();
    out.reserve(header_size + payload.size() + 1);
    put_header(type, len, out);
    out.insert(out.end(), payload.begin(), payload.end());
    out.push_back(PK7_END);
    return 1;
}

void byte_stuffing(std::list<char>& bytes) {
    for (auto it = bytes.begin(); it != bytes.end(); ++it) {
        if (!needs_escape(*it)) continue;
        bytes.insert(it, PK7_ESCAPE);
        *it = static_cast<char>(*it ^ 0x40);
    }
}

// Ready-made frames. "?" bytes are placeholders the command handler overwrites
// in place; "\?" keeps two of them from reading as a trigraph.
char cmd_sf[PK7_SLOT] = "~0007FSF\x7f";
char cmd_jf[PK7_SLOT] = "~0007FJF\x7f";
char cmd_ec[PK7_SLOT] = "~0007FEC\x7f";
char cmd_cf1[PK7_SLOT] = "~0009FCF-1\x7f";
char cmd_cf11[PK7_SLOT] = "~0010FCF-11\x7f";
char cmd_ul_1[PK7_SLOT] = "~0009FUL-1\x7f";
char cmd_ul_2[PK7_SLOT] = "~0009FUL-2\x7f";
char cmd_re[PK7_SLOT] = "~0007FRE\x7f";
char cmd_fr[PK7_SLOT] = "~0007FFR\x7f";
char cmd_ep[PK7_SLOT] = "~0009FEP-?\x7f";
char cmd_ad[PK7_SLOT] = "~0007FAD\x7f";
char cmd_efx[PK7_SLOT] = "~0008FEF?\x7f";
char cmd_efxx[PK7_SLOT] = "~0009FEF?\?\x7f";
char cmd_eax[PK7_SLOT] = "~0008FEA?\x7f";
char cmd_eaxx[PK7_SLOT] = "~0009FEA?\?\x7f";
char cmd_er[PK7_SLOT] = "~0007FER\x7f";
char xxpgN_1[PK7_SLOT] = "~0012FXXPG?-1\x7f";
char xxpgNN_1[PK7_SLOT] = "~0013FXXPG?\?-1\x7f";
char xxpg1_0[PK7_SLOT] = "~0012FXXPG1-0\x7f";
char kkN_1[PK7_SLOT] = "~0010FKK?-1\x7f";
char kkN_0[PK7_SLOT] = "~0010FKK?-0\x7f";
char ss1_x[PK7_SLOT] = "~0010FSS1-?\x7f";
char ss2_x[PK7_SLOT] = "~0010FSS2-?\x7f";
char kt_N[PK7_SLOT] = "~0009FKT-?\x7f";
char cmd_pl[PK7_SLOT] = "~0007FPL\x7f";
char cmd_ls[PK7_SLOT] = "~0007FLS\x7f";
char cmd_dl[PK7_SLOT] = "~0007FDL\x7f";
char cmd_mh[PK7_SLOT] = "~0007FMH\x7f";
char acknowledge_OK[PK7_SLOT] = "~0005A\x7f";
char acknowledge_AN1[PK7_SLOT] = "~0007AN1\x7f";
char acknowledge_AN2[PK7_SLOT] = "~0007AN2\x7f";
char acknowledge_AN5[PK7_SLOT] = "~0007AN5\x7f";

const size_t cmd_sf_len = 9;
const size_t cmd_jf_len = 9;
const size_t cmd_ec_len = 9;
const size_t cmd_cf1_len = 11;
const size_t cmd_cf11_len = 12;
const size_t cmd_ul_1_len = 11;
const size_t cmd_ul_2_len = 11;
const size_t cmd_re_len = 9;
const size_t cmd_fr_len = 9;
const size_t cmd_ep_len = 11;
const size_t cmd_ad_len = 9;
const size_t cmd_efx_len = 10;
const size_t cmd_efxx_len = 11;
const size_t cmd_eax_len = 10;
const size_t cmd_eaxx_len = 11;
const size_t cmd_er_len = 9;
const size_t xxpgN_1_len = 14;
const size_t xxpgNN_1_len = 15;
const size_t xxpg1_0_len = 14;
const size_t kkN_1_len = 12;
const size_t kkN_0_len = 12;
const size_t ss1_x_len = 12;
const size_t ss2_x_len = 12;
const size_t kt_N_len = 11;
const size_t cmd_pl_len = 9;
const size_t cmd_ls_len = 9;
const size_t cmd_dl_len = 9;
const size_t cmd_mh_len = 9;
const size_t acknowledge_OK_len = 7;
const size_t acknowledge_AN1_len = 9;
const size_t acknowledge_AN2_len = 9;
const size_t acknowledge_AN5_len = 9;
