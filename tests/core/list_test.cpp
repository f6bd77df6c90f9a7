#include "core/list.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

int items[8];
void* item(int i) { return &items[i]; }

// The cells as a walk sees them, checked against count so that a broken link or a stale count shows.
std::vector<void*> cells(const CList& list) {
    std::vector<void*> seen;
    for (CList::Cell* cell = list.head(); cell; cell = cell->next) seen.push_back(cell->item);
    EXPECT_EQ(static_cast<int32_t>(seen.size()), list.count());
    return seen;
}

void fill(CList& list, int n) {
    for (int i = 0; i < n; ++i) list.add(item(i));
}

struct Counted {
    explicit Counted(int& alive) : alive(alive) { ++alive; }
    ~Counted() { --alive; }
    int& alive;
};

}  // namespace

TEST(List, LookupsStayInsideTheList) {
    CList list;
    EXPECT_EQ(list.getAt(0), nullptr);
    EXPECT_EQ(list.first(), nullptr);
    fill(list, 2);
    list.addUnique(item(0));
    list.addUnique(item(2));
    list.add(item(0));
    EXPECT_EQ(cells(list), (std::vector<void*>{item(0), item(1), item(2), item(0)})) << "addUnique skips a present item";
    EXPECT_EQ(list.getAt(-1), nullptr);
    EXPECT_EQ(list.getAt(4), nullptr);
    EXPECT_EQ(list.getAt(2), item(2));
    EXPECT_EQ(list.indexOf(item(0)), 0) << "the first match";
    EXPECT_EQ(list.indexOf(item(5)), -1);
    EXPECT_EQ(list.first(), item(0));
    EXPECT_EQ(list.cursor(), list.head());
}

TEST(List, InsertPlacesTheItemAtIndexOrAtTheEnd) {
    struct Row { int itemsBefore; int32_t index; std::vector<void*> expected; };
    const Row rows[] = {
        {2, -1, {item(7), item(0), item(1)}}, {2, 0, {item(7), item(0), item(1)}},
        {2, 1, {item(0), item(7), item(1)}},  {2, 2, {item(0), item(1), item(7)}},
        {2, 5, {item(0), item(1), item(7)}},  {0, 3, {item(7)}},
    };
    for (const Row& row : rows) {
        CList list;
        fill(list, row.itemsBefore);
        list.insert(row.index, item(7));
        EXPECT_EQ(cells(list), row.expected) << "index " << row.index;
    }
}

TEST(List, RemoveUnlinksOnlyTheFirstMatchingCell) {
    CList list;
    fill(list, 3);
    list.add(item(1));
    list.remove(item(1));
    EXPECT_EQ(cells(list), (std::vector<void*>{item(0), item(2), item(1)}));
    list.remove(item(6));
    list.removeAt(3);
    list.removeAt(-1);
    EXPECT_EQ(list.count(), 3);
    list.removeAt(2);
    list.add(item(3));  // behind the new last cell
    list.first();
    list.removeAt(0);
    EXPECT_EQ(list.cursor(), nullptr) << "the cursor stood on the removed cell";
    EXPECT_EQ(cells(list), (std::vector<void*>{item(2), item(3)}));
    list.clear();
    EXPECT_EQ(cells(list), std::vector<void*>{});
}

TEST(List, MoveItemRelinksTheCellBetweenLists) {
    struct Row {
        const char* what;
        int destinationItems;
        void* moved;
        int32_t index;
        bool result;
        std::vector<void*> destination, source;
    };
    // Source holds item(4), item(5); destination holds item(0) .. item(destinationItems - 1).
    const Row rows[] = {
        {"-1 appends", 2, item(5), -1, true, {item(0), item(1), item(5)}, {item(4)}},
        {"0 makes the head", 2, item(4), 0, true, {item(4), item(0), item(1)}, {item(5)}},
        {"middle", 3, item(5), 1, true, {item(0), item(5), item(1), item(2)}, {item(4)}},
        {"index past the end appends", 1, item(4), 9, true, {item(0), item(4)}, {item(5)}},
        {"into an empty list", 0, item(5), 3, true, {item(5)}, {item(4)}},
        {"item not in source", 2, item(6), 0, false, {item(0), item(1)}, {item(4), item(5)}},
    };
    for (const Row& row : rows) {
        CList destination, source;
        fill(destination, row.destinationItems);
        source.add(item(4));
        source.add(item(5));
        EXPECT_EQ(CList::moveItem(destination, source, row.moved, row.index), row.result) << row.what;
        // Items added afterwards go behind each list's true end.
        destination.add(item(7));
        source.add(item(7));
        auto withEnd = [](std::vector<void*> items) { return items.push_back(item(7)), items; };
        EXPECT_EQ(cells(destination), withEnd(row.destination)) << row.what;
        EXPECT_EQ(cells(source), withEnd(row.source)) << row.what;
    }

    // One list, or two empty ones, share a head: nothing moves.
    CList a, b;
    EXPECT_FALSE(CList::moveItem(a, b, item(0), -1));
    fill(a, 3);
    EXPECT_FALSE(CList::moveItem(a, a, item(2), 0));
    EXPECT_EQ(cells(a), (std::vector<void*>{item(0), item(1), item(2)}));
    // Into an empty list and back: the heads differ, so both moves go through.
    a.first();
    EXPECT_TRUE(CList::moveItem(b, a, item(0), -1));
    EXPECT_EQ(a.cursor(), nullptr) << "the cursor stood on the moved cell";
    EXPECT_TRUE(CList::moveItem(a, b, item(0), -1));
    EXPECT_EQ(cells(a), (std::vector<void*>{item(1), item(2), item(0)}));
    EXPECT_EQ(cells(b), std::vector<void*>{});
}

TEST(TypedList, WalkEndsAtANullItemAndDeleteAllDestroysEachItem) {
    int alive = 0;
    TList<Counted> list;
    for (int i = 0; i < 3; ++i) list.add(new Counted(alive));
    EXPECT_EQ(std::vector<Counted*>(list.begin(), list.end()),
              (std::vector<Counted*>{list.getAt(0), list.getAt(1), list.getAt(2)}));

    list.insert(1, nullptr);
    EXPECT_EQ(std::distance(list.begin(), list.end()), 1);
    list.insert(0, nullptr);
    EXPECT_EQ(list.begin(), list.end());
    list.removeAt(0);
    list.removeAt(1);

    list.deleteAll();
    EXPECT_EQ(alive, 0);
}
