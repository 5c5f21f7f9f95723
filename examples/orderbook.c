/* The best prices of an order book: a B-tree of quantities by price, and a table from order number to price. */
#include <korutil/korBtree.h>
#include <korutil/korI32Hash.h>

#include <inttypes.h>

static void place(korEx* ex, uint8_t depth, korBtree* book, korI32Hash* orders, uint32_t order, int64_t price,
                  uint64_t quantity)
{
    uint64_t before = _korBtree_Get(KOR_AT(ex, depth), book, price);
    _korBtree_Set(KOR_AT(ex, depth), book, price, before + quantity);
    _korI32Hash_Set(KOR_AT(ex, depth), orders, order, (uint64_t)price);
}

static void printBest(korEx* ex, uint8_t depth, korBtree* book, int levels)
{
    int64_t price = INT64_MAX;
    uint64_t quantity;
    while (levels-- > 0 && _korBtree_GetPrevious(KOR_AT(ex, depth), book, price, &price, &quantity)) {
        printf("%6" PRId64 " x %" PRIu64 "\n", price, quantity);
    }
}

int main(void)
{
    korEx* ex = korEx_Create();
    korBtree* bids = _korBtree_Create(KOR_AT(ex, 0), NULL, 64, 0);
    korI32Hash* orders = _korI32Hash_Create(KOR_AT(ex, 0), 16);
    for (uint32_t order = 1; order <= 20; order++) {
        place(KOR_AT(ex, 0), bids, orders, order, 1000 + order * 37 % 11, order);
    }
    _korBtree_Remove(KOR_AT_D(0, ex), bids,
                     (int64_t)_korI32Hash_Get(KOR_AT(ex, 0), orders, 8)); /* that level is gone */
    printBest(KOR_AT(ex, 0), bids, 3);
    _korI32Hash_Destroy(KOR_AT_D(0, ex), orders);
    _korBtree_Destroy(KOR_AT_D(0, ex), bids);
    if (korEx_GetErrorCode(ex) != 0) {
        korEx_Print(ex);
    }
    korEx_Destroy(ex);
    return 0;
}
