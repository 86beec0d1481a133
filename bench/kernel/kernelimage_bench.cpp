// SGI images read from a file, beside the plain version and libavcodec, which both have the file in memory. Arguments: how
// the picture is stored, channels, its edge in pixels. `bytes_per_second` are bytes of the decoded image.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <sys/mman.h>

#include <tolvin/bench/kernel/plainimage.h>
#include <tolvin/kernel/kernelimage.h>
#include <tolvin/kernel/kernelnoise.h>
#include <tolvin/performer/pf.h>

#ifdef TOLVIN_AVCODEC
extern "C" {
#include <libavcodec/avcodec.h>
}
#endif

namespace
{

using plain::Bytes;

enum Kind
{
    kVerbatim,
    kFlat,  // large areas of one colour
    kNoise, // smooth noise: short runs and short literals in turn
    kPhoto  // the same with grain: literals for the most part
};

struct Picture
{
    Bytes image;
    Bytes file;
};

uint8_t valueOf(Kind kind, unsigned x, unsigned y, unsigned channel)
{
    if (kind == kFlat)
    {
        return static_cast<uint8_t>(x / 100 * 7 + y / 64 * 31 + channel);
    }
    const double smooth =
        noise(static_cast<float>(x) * 0.02F, static_cast<float>(y) * 0.02F, static_cast<float>(channel));
    const unsigned grain = (x * 2654435761U ^ y * 2246822519U ^ channel * 3266489917U) * 668265263U >> 28;
    return static_cast<uint8_t>(smooth * 239.0 + (kind == kNoise ? 0 : grain));
}

const Picture &picture(const benchmark::State &state)
{
    static std::map<std::vector<int64_t>, Picture> made;
    const std::vector<int64_t> key = {state.range(0), state.range(1), state.range(2)};
    Picture &result = made[key];
    if (result.image.empty() && noiseInitialize())
    {
        const Kind kind = static_cast<Kind>(key[0]);
        const auto channels = static_cast<unsigned>(key[1]), edge = static_cast<unsigned>(key[2]);
        for (unsigned i = 0; i < edge * edge * channels; ++i)
        {
            result.image.push_back(valueOf(kind, i / channels % edge, i / channels / edge, i % channels));
        }
        result.file = plain::sgiFile({edge, edge, channels, kind != kVerbatim}, result.image);
    }
    return result;
}

// Finish a benchmark whose rounds gave this image.
void finish(benchmark::State &state, const Picture &picture, bool right)
{
    if (!right)
    {
        state.SkipWithError("wrong pixels");
    }
    static const char *const names[] = {"verbatim", "flat", "noise", "photo"};
    state.SetLabel(names[state.range(0)] + std::string(state.range(1) == 3 ? " RGB" : " RGBA"));
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(picture.image.size()));
}

// Give the pages of the block back, so that the next to use them gets fresh ones.
void forgetPages(uint8_t *block, size_t bytes, int advice)
{
    const uintptr_t page = 4096, start = (reinterpret_cast<uintptr_t>(block) + page - 1) / page * page;
    const uintptr_t end = (reinterpret_cast<uintptr_t>(block) + bytes) / page * page;
    if (start < end)
    {
        madvise(reinterpret_cast<void *>(start), end - start, advice);
    }
}

void load(benchmark::State &state, bool fresh)
{
    const Picture &wanted = picture(state);
    FILE *file = tmpfile();
    fwrite(wanted.file.data(), 1, wanted.file.size(), file);
    FILE *const messages = freopen("/dev/null", "w", stderr);
    vuTexture texture = {};
    for (auto _ : state)
    {
        if (fresh && texture.image != nullptr)
        {
            state.PauseTiming();
            forgetPages(texture.image, wanted.image.size(), MADV_REMOVE);
            state.ResumeTiming();
        }
        rewind(file);
        imageLoadSGI(&texture, file);
    }
    const bool right = texture.image != nullptr && std::equal(wanted.image.begin(), wanted.image.end(), texture.image);
    finish(state, wanted, right && messages != nullptr);
    pfFree(texture.image);
    fclose(file);
}

void Load(benchmark::State &state)
{
    load(state, false);
}

void LoadFreshPages(benchmark::State &state)
{
    load(state, true);
}

void Plain(benchmark::State &state)
{
    const Picture &wanted = picture(state);
    Bytes image;
    for (auto _ : state)
    {
        image = plain::readSgi(wanted.file);
    }
    finish(state, wanted, image == wanted.image);
}

const std::vector<std::vector<int64_t>> kPictures = {{kVerbatim, kFlat, kNoise, kPhoto}, {3, 4}, {2048, 1000}};

BENCHMARK(Load)->ArgsProduct(kPictures);
BENCHMARK(LoadFreshPages)->ArgsProduct(kPictures);
BENCHMARK(Plain)->ArgsProduct(kPictures);

#ifdef TOLVIN_AVCODEC

// libavcodec turns the picture over.
bool isTurned(const AVFrame &frame, const Bytes &image)
{
    const size_t height = static_cast<size_t>(frame.height), row = image.size() / height;
    bool same = frame.data[0] != nullptr;
    for (size_t y = 0; y < height && same; ++y)
    {
        same = std::equal(image.end() - static_cast<ptrdiff_t>((y + 1) * row),
                          image.end() - static_cast<ptrdiff_t>(y * row),
                          frame.data[0] + static_cast<ptrdiff_t>(y) * frame.linesize[0]);
    }
    return same;
}

AVCodecContext *openDecoder()
{
    const AVCodec *codec = avcodec_find_decoder(AV_CODEC_ID_SGI);
    AVCodecContext *context = avcodec_alloc_context3(codec);
    context->thread_count = 1;
    avcodec_open2(context, codec, nullptr);
    return context;
}

// The decoder keeps a pool of frames. The one before is given back first, so that it is the same every time.
void avcodec(benchmark::State &state, bool fresh)
{
    const Picture &wanted = picture(state);
    AVPacket *packet = av_packet_alloc();
    av_new_packet(packet, static_cast<int>(wanted.file.size()));
    std::copy(wanted.file.begin(), wanted.file.end(), packet->data);
    AVFrame *frame = av_frame_alloc();
    AVCodecContext *context = openDecoder();
    for (auto _ : state)
    {
        if (fresh && frame->data[0] != nullptr)
        {
            state.PauseTiming();
            forgetPages(frame->data[0], wanted.image.size(), MADV_DONTNEED);
            state.ResumeTiming();
        }
        av_frame_unref(frame);
        avcodec_send_packet(context, packet);
        avcodec_receive_frame(context, frame);
    }
    finish(state, wanted, isTurned(*frame, wanted.image));
    avcodec_free_context(&context);
    av_frame_free(&frame);
    av_packet_free(&packet);
}

void Avcodec(benchmark::State &state)
{
    avcodec(state, false);
}

void AvcodecFreshPages(benchmark::State &state)
{
    avcodec(state, true);
}

BENCHMARK(Avcodec)->ArgsProduct(kPictures);
BENCHMARK(AvcodecFreshPages)->ArgsProduct(kPictures);

#endif

} // namespace
