// blocks.h: memory for arrays of plain values, on its way from one large array to the next.
//
//   double *coef = static_cast<double *>(blocks::take(8 * n));   not cleared; NULL when there is no memory
//   double *lb = blocks::zeros(8 * n);                           all 0, and no page taken before it is written
//   coef = blocks::resize(coef, 8 * more);
//   blocks::clean_from(coef);                        from this byte on it is 0 but for what its taker wrote
//   blocks::give(coef);                                          NULL is fine
//   blocks::trim();                                              what is kept goes back to the system
//
// Touching a fresh page costs more than writing it ten times over (1.5 ns a byte on a virtual machine, 0.2 on a bare
// one), and building a model takes and frees arrays of the same few sizes again and again: an expression, its rows in
// the store, the columns for the engine. So a large block that is given back is kept for the next request of about its
// size. Never more is kept than is in use (and 64 MB), and trim() empties the shelf when a model was handed over:
// afterwards nothing would come for it.
#pragma once

#include <cstddef>

namespace blocks {

void *take(std::size_t bytes);
void *zeros(std::size_t bytes);
void *resize(void *block, std::size_t bytes); // as realloc: the old block stays when NULL comes back
void give(void *block) noexcept;
std::size_t clean_from(const void *block) noexcept;
void trim() noexcept;

} // namespace blocks
