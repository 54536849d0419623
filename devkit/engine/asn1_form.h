// ASN.1 structures that are described by libcrypto's templates: owned, read, written.
#ifndef CORVANE_ENGINE_ASN1_FORM_H
#define CORVANE_ENGINE_ASN1_FORM_H

#include <openssl/asn1t.h>

#include <memory>
#include <vector>

#include "buffers.h"

// `Item` is the function that ASN1_SEQUENCE_END and its like define.
template <class Form, const ASN1_ITEM* (*Item)()>
struct Asn1 {
    struct Release {
        void operator()(Form* form) const
        {
            ASN1_item_free(reinterpret_cast<ASN1_VALUE*>(form), Item());
        }
    };
    using Owner = std::unique_ptr<Form, Release>;

    static Owner make()
    {
        Owner form(reinterpret_cast<Form*>(ASN1_item_new(Item())));
        require(form != nullptr, AVEN_E_NO_MEMORY);
        return form;
    }

    // Reads one DER or BER value. Throws `malformed`, or `trailing` if bytes follow it.
    static Owner read(Bytes in, int malformed, int trailing)
    {
        const unsigned char* p = in.data;
        require(in.size <= INT32_MAX, malformed);
        Owner form(reinterpret_cast<Form*>(
            ASN1_item_d2i(nullptr, &p, static_cast<long>(in.size), Item())));
        require(form != nullptr, malformed);
        require(p == in.data + in.size, trailing);
        return form;
    }

    static size_t sizeOf(const Form& form)
    {
        const int size = ASN1_item_i2d(valueOf(form), nullptr, Item());
        require(size > 0, AVEN_E_NO_MEMORY);
        return static_cast<size_t>(size);
    }

    // Writes DER. `out` has room for sizeOf(form).
    static void writeTo(const Form& form, unsigned char* out)
    {
        require(ASN1_item_i2d(valueOf(form), &out, Item()) > 0, AVEN_E_NO_MEMORY);
    }

    static std::vector<unsigned char> encode(const Form& form)
    {
        std::vector<unsigned char> der(sizeOf(form));
        writeTo(form, der.data());
        return der;
    }

private:
    static const ASN1_VALUE* valueOf(const Form& form)
    {
        return reinterpret_cast<const ASN1_VALUE*>(&form);
    }
};

inline void setContent(ASN1_STRING* string, Bytes content)
{
    require(content.size <= INT32_MAX, AVEN_E_INPUT_TOO_LONG);
    require(ASN1_STRING_set(string, content.data, static_cast<int>(content.size)) == 1,
            AVEN_E_NO_MEMORY);
}

inline Bytes contentOf(const ASN1_STRING* string)
{
    return input(ASN1_STRING_get0_data(string), static_cast<uint32_t>(ASN1_STRING_length(string)));
}

#endif
