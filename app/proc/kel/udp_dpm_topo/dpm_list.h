// Intrusive circular doubly linked list with a head node.
//
// Every cache element begins with a `dpm_list` link; an empty list is a head
// whose two pointers point to the head itself. Elements are appended at the
// tail and walked from head->next. A removed element gets poison values in its
// link so that a stale walk fails loudly instead of wandering through memory.
#pragma once

#include <cstddef>
#include <cstdint>

struct dpm_list {
    dpm_list *next;
    dpm_list *prev;
};

inline constexpr uintptr_t DPM_LIST_POISON1 = 0x100100;
inline constexpr uintptr_t DPM_LIST_POISON2 = 0x200200;

inline void dpm_list_init(dpm_list *head) {
    head->next = head;
    head->prev = head;
}

inline bool dpm_list_empty(const dpm_list *head) {
    return head->next == head;
}

inline void dpm_list_add_tail(dpm_list *node, dpm_list *head) {
    dpm_list *prev = head->prev;
    node->next = head;
    node->prev = prev;
    prev->next = node;
    head->prev = node;
}

inline void dpm_list_del(dpm_list *node) {
    node->prev->next = node->next;
    node->next->prev = node->prev;
    node->next =
        reinterpret_cast<dpm_list *>(DPM_LIST_POISON1);  // NOLINT(performance-no-int-to-ptr)
    node->prev =
        reinterpret_cast<dpm_list *>(DPM_LIST_POISON2);  // NOLINT(performance-no-int-to-ptr)
}

inline size_t dpm_list_count(const dpm_list *head) {
    size_t n = 0;
    for (const dpm_list *p = head->next; p != head; p = p->next) ++n;
    return n;
}

// The element that holds `ptr` as its member `member`.
#define dpm_list_entry(ptr, type, member) \
    reinterpret_cast<type *>(reinterpret_cast<char *>(ptr) - offsetof(type, member))

#define dpm_list_first_entry(head, type, member) dpm_list_entry((head)->next, type, member)

// Walk every element; `pos` must not be removed inside the loop.
#define dpm_list_for_each_entry(pos, head, member)                                         \
    for (pos = dpm_list_entry((head)->next, std::remove_pointer_t<decltype(pos)>, member); \
         &pos->member != (head);                                                           \
         pos = dpm_list_entry(pos->member.next, std::remove_pointer_t<decltype(pos)>, member))

// Walk every element; `pos` may be removed (the next one is taken first).
#define dpm_list_for_each_entry_safe(pos, n, head, member)                                  \
    for (pos = dpm_list_entry((head)->next, std::remove_pointer_t<decltype(pos)>, member),  \
        n = dpm_list_entry(pos->member.next, std::remove_pointer_t<decltype(pos)>, member); \
         &pos->member != (head);                                                            \
         pos = n, n = dpm_list_entry(n->member.next, std::remove_pointer_t<decltype(n)>, member))
