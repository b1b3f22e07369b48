#pragma once

#include "support/temp_file.h"

#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <random>

#include <jpeglib.h>

namespace testing_support {

/// A JPEG file built from named fields by libjpeg itself; starts as one grey pixel, baseline. libjpeg ends
/// the program, with its message, where the fields make no file.
struct JpegBytes {
    int width = 1, height = 1;
    J_COLOR_SPACE inputSpace = JCS_GRAYSCALE;
    int components = 1; ///< Of the input space.
    Bytes samples = { 0x80 }; ///< Row after row from the top.
    int quality = 90;
    J_COLOR_SPACE codedSpace = JCS_UNKNOWN; ///< Unknown: libjpeg's choice for the input space.
    bool isProgressive = false, isArithmetic = false;
    bool hasFullChroma = false; ///< Else chroma has half the width and half the height.
    bool hasAdobeMarker = true; ///< Where libjpeg would write one.
    int restartInterval = 0; ///< In units of the interleaved blocks; 0 for none.
    int commentBytes = -1; ///< Below 0: no comment.

    Bytes bytes() const
    {
        jpeg_compress_struct coder {};
        jpeg_error_mgr errors;
        coder.err = jpeg_std_error(&errors);
        jpeg_create_compress(&coder);
        unsigned char* memory = nullptr;
        unsigned long size = 0;
        jpeg_mem_dest(&coder, &memory, &size);
        describe(coder);
        jpeg_start_compress(&coder, TRUE);
        if (commentBytes >= 0) {
            const Bytes comment(std::size_t(commentBytes), 'c');
            jpeg_write_marker(&coder, JPEG_COM, comment.data(), unsigned(commentBytes));
        }
        const std::size_t rowBytes = std::size_t(width * components);
        while (coder.next_scanline < coder.image_height) {
            JSAMPROW row = const_cast<JSAMPROW>(samples.data() + coder.next_scanline * rowBytes);
            jpeg_write_scanlines(&coder, &row, 1);
        }
        jpeg_finish_compress(&coder);
        jpeg_destroy_compress(&coder);
        const Bytes file(memory, memory + size);
        std::free(memory);
        return file;
    }

private:
    void describe(jpeg_compress_struct& coder) const
    {
        coder.image_width = JDIMENSION(width);
        coder.image_height = JDIMENSION(height);
        coder.input_components = components;
        coder.in_color_space = inputSpace;
        jpeg_set_defaults(&coder);
        if (codedSpace != JCS_UNKNOWN)
            jpeg_set_colorspace(&coder, codedSpace);
        jpeg_set_quality(&coder, quality, TRUE);
        if (isProgressive)
            jpeg_simple_progression(&coder);
        coder.arith_code = isArithmetic;
        coder.restart_interval = unsigned(restartInterval);
        if (!hasAdobeMarker)
            coder.write_Adobe_marker = FALSE;
        if (hasFullChroma)
            coder.comp_info[0].h_samp_factor = coder.comp_info[0].v_samp_factor = 1;
    }
};

/// Noise over a gradient: every block differs.
inline Bytes makeSamples(int width, int height, int components)
{
    std::mt19937 random(unsigned(width * 31 + height));
    Bytes samples;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < components; ++c)
                samples.push_back(std::uint8_t(x * 3 + y * 5 + c * 70 + int(random() % 24)));
    return samples;
}

inline JpegBytes makeJpeg(J_COLOR_SPACE inputSpace, int width, int height)
{
    JpegBytes file;
    file.width = width;
    file.height = height;
    file.inputSpace = inputSpace;
    file.components = inputSpace == JCS_GRAYSCALE ? 1 : inputSpace == JCS_CMYK ? 4 : 3;
    file.samples = makeSamples(width, height, file.components);
    return file;
}

/// What a plain loop around libjpeg makes of a file.
struct DecodedJpeg {
    int width = 0, height = 0, components = 0;
    Bytes samples;
};

struct JumpingErrors : jpeg_error_mgr {
    std::jmp_buf recovery;
};

/// False when libjpeg cannot read it. Whatever changes lives at the caller's, where a jump leaves it whole.
inline bool decodeJpeg(
    const Bytes& file, jpeg_decompress_struct& coder, JumpingErrors& errors, DecodedJpeg& out)
{
    coder.err = jpeg_std_error(&errors);
    errors.error_exit
        = [](j_common_ptr common) { std::longjmp(static_cast<JumpingErrors*>(common->err)->recovery, 1); };
    errors.output_message = [](j_common_ptr) {};
    if (setjmp(errors.recovery) != 0)
        return false;
    jpeg_create_decompress(&coder);
    jpeg_mem_src(&coder, file.data(), file.size()); // At its end libjpeg goes on as at that of a file.
    jpeg_read_header(&coder, TRUE);
    jpeg_start_decompress(&coder);
    out.width = int(coder.output_width);
    out.height = int(coder.output_height);
    out.components = coder.output_components;
    out.samples.resize(std::size_t(out.width) * std::size_t(out.height) * std::size_t(out.components));
    while (coder.output_scanline < coder.output_height) {
        JSAMPROW row = out.samples.data()
            + std::size_t(coder.output_scanline * coder.output_width) * std::size_t(out.components);
        jpeg_read_scanlines(&coder, &row, 1);
    }
    jpeg_finish_decompress(&coder);
    return true;
}

/// The samples in libjpeg's default output space; nothing when it cannot read the file.
inline std::optional<DecodedJpeg> decodeJpeg(const Bytes& file)
{
    jpeg_decompress_struct coder {};
    JumpingErrors errors;
    DecodedJpeg out;
    const bool isDecoded = !file.empty() && decodeJpeg(file, coder, errors, out);
    jpeg_destroy_decompress(&coder);
    return isDecoded ? std::optional(out) : std::nullopt;
}

} // namespace testing_support
