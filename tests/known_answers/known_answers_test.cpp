// Every vector, in pieces of awkward sizes and at one go.
#include "tests/known_answers/vectors.h"

namespace {

TEST_F(Connected, EveryVectorComesTrueInPiecesOfEverySize) {
  for (const Vector& vector : Vectors()) {
    SCOPED_TRACE(vector.at("at"));
    client.Check(vector, {1, 2, 3, 7, 8, 9, 15, 16, 17, 31, 32, 33, 1000});
  }
  EXPECT_GT(Vectors().size(), 200u);
}

}  // namespace
