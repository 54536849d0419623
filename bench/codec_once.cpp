// One call of the codec on a given number of bytes, for counting its instructions:
//     codec_once none|encode|decode|encode_url|decode_url <bytes>

#include <cstdlib>
#include <string>

#include "base64.h"

int main(int argc, char** argv)
{
    if (argc != 3)
        return 2;
    const std::string what = argv[1];
    const std::string in(strtoul(argv[2], nullptr, 10), 'A');
    const auto* bytes = reinterpret_cast<const unsigned char*>(in.data());
    std::string out;

    if (what == "encode")
        out = base64_encode(bytes, static_cast<unsigned int>(in.length()));
    else if (what == "encode_url")
        out = base64_encode_url(bytes, in.length());
    else if (what == "decode")
        out = base64_decode(in);
    else if (what == "decode_url")
        base64_decode_url(out = in);
    return what != "none" && out.empty() ? 1 : 0;
}
