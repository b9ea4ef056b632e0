// Request texts rendered without a JSON tree must be, byte for byte, what
// jsoncpp's toStyledString makes of the same object.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "mediaplayer_ipc/styled_object.h"

namespace {

using pavo::mediaplayer::StyledObject;

TEST(StyledObject, RendersExactlyAsToStyledString) {
  const char* names[] = {"event_type", "player_id", "url", "pos", "enable", "a", "b_", "Z", "rect_x"};
  const double doubles[] = {0.0, -0.0, 12.5, 1000.0, 0.1, 1e-300, 1e300, -2.5e17,
                            std::numeric_limits<double>::quiet_NaN(), INFINITY, -INFINITY};
  const std::vector<std::string> texts = {"", "http://a/b?c=d&e=f", "say \"hi\"", "back\\slash", "tab\there",
                                          "caf\xc3\xa9", "bad\xff utf8", std::string("nul\0in", 6), "\x7f", "/"};
  std::mt19937 random(5);
  for (int round = 0; round < 3000; ++round) {
    StyledObject object;  // (the texts outlive it)
    const size_t count = random() % (StyledObject::kMaxMembers + 1);
    std::vector<const char*> pool(std::begin(names), std::end(names));
    std::shuffle(pool.begin(), pool.end(), random);
    for (size_t k = 0; k < count; ++k) {
      switch (random() % 5) {
        case 0: object.add_int(pool[k], static_cast<int>(random())); break;
        case 1: object.add_uint(pool[k], static_cast<unsigned>(random()) * 2654435761u); break;
        case 2: object.add_double(pool[k], doubles[random() % std::size(doubles)]); break;
        case 3: object.add_bool(pool[k], random() % 2 == 0); break;
        default:
          const std::string& member = texts[random() % texts.size()];
          object.add_text(pool[k], member.data(), member.size());
      }
    }
    std::string text = "old content";
    object.render(&text);
    ASSERT_EQ(text, object.to_value().toStyledString()) << "round " << round;
  }
}

}  // namespace
