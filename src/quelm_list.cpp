// Intrusive doubly linked list of flows. Nodes live inside the flows (quelm_flow.lru), so nothing
// here allocates and a flow is in at most one list. A node carries no mark of its list: callers
// guarantee that the node given is in the list given (or, for insertions, in none).
#include <stdio.h>

#include "quelm.h"
#include "quelm_flow.h"

extern "C" {

void quelm_list_append(quelm_list *list, quelm_list_node *node) {
    node->next = nullptr;
    node->prev = list->tail;
    if (list->tail == nullptr)
        list->head = node;
    else
        list->tail->next = node;
    list->tail = node;
    list->count++;
}

void quelm_list_prepend(quelm_list *list, quelm_list_node *node) {
    node->prev = nullptr;
    node->next = list->head;
    if (list->head == nullptr)
        list->tail = node;
    else
        list->head->prev = node;
    list->head = node;
    list->count++;
}

void quelm_list_remove(quelm_list *list, quelm_list_node *node) {
    if (node->prev != nullptr)
        node->prev->next = node->next;
    else if (list->head == node)
        list->head = node->next;
    if (node->next != nullptr)
        node->next->prev = node->prev;
    else if (list->tail == node)
        list->tail = node->prev;
    node->prev = node->next = nullptr;
    list->count--;
}

void quelm_list_move_to_head(quelm_list *list, quelm_list_node *node) {
    if (list->head == node) return;
    quelm_list_remove(list, node);
    quelm_list_prepend(list, node);
}

void quelm_list_move_to_tail(quelm_list *list, quelm_list_node *node) {
    if (list->tail == node) return;
    quelm_list_remove(list, node);
    quelm_list_append(list, node);
}

void quelm_list_merge(quelm_list *dst, quelm_list *src) {
    if (src->head == nullptr) return;
    if (dst->count != 0) {
        dst->tail->next = src->head;
        src->head->prev = dst->tail;
        dst->tail = src->tail;
        dst->count += src->count;
    } else {
        *dst = *src;
    }
    *src = quelm_list{};
}

quelm_flow *quelm_list_pop_head(quelm_list *list) {
    quelm_list_node *node = list->head;
    if (node == nullptr) return nullptr;
    list->head = node->next;
    list->count--;
    if (list->head != nullptr)
        list->head->prev = nullptr;
    else
        list->tail = nullptr;
    return node->owner;
}

quelm_flow *quelm_list_get_next(quelm_list *list) {
    return quelm_list_pop_head(list);
}

void quelm_list_cleanup(quelm_list *list) {
    while (quelm_flow *flow = quelm_list_pop_head(list))
        quelm_flow_free(flow);
    *list = quelm_list{};
}

void quelm_list_dump_flows(quelm_list *list, void *pelda) {
    char buf[512];
    uint32_t printed = 0;
    for (quelm_list_node *node = list->head; node != nullptr; node = node->next) {
        printf("%s\n", quelm_flow_print(node->owner, buf, sizeof buf, pelda));
        printed++;
    }
    if (list->count != 0) printf("%u/%u flows dumped", printed, list->count);
}

}  // extern "C"
