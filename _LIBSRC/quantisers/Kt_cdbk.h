// The records of tree codebooks. Callers of the library see KTCodebook as an opaque record; other
// modules use the exported functions.
#pragma once

#include "frame/types.h"

struct KTCluster {
    // The distance between the two farthest members: a double in the float form; in the fixed
    // form the 32-bit integer distance in the low half, the other half 0.
    union {
        double wide;
        int halves[2];
    } spread;
    int iFar1; // those two members' places in pMembers
    int iFar2;
    void* pCentroid; // nDim elements of the data's type
    int cell;        // a leaf's number, from 1; 0 in internal nodes
    int nMembers;    // stays as it was when the cluster is split
    int* pMembers;   // places in the training set; null once the cluster has been split
    int isLeaf;
    int node;         // root 1, the children of k are 2k and 2k + 1, modulo 2^32
    KTCluster* pLeft; // null in leaves
    KTCluster* pRight;
    // Beyond the tree itself:
    int level;            // root 1, its children 2, ...
    KTCluster* pNextLeaf; // the leaves from left to right
    KTCluster* pOlder;    // all clusters of the codebook, newest first: what there is to free
    // Of a leaf that holds all of its parent's members: its sibling, which holds none; null in all
    // others.
    const KTCluster* pEmptySibling;
    bool hasOwnFrame; // whether its points stand in a frame of their own (Kt_cdbk_points.h)
};

struct KTDescent;

struct KTCodebook {
    int depth;          // a lone root has depth 1
    int nSize;          // cells asked for
    int nDim;           // elements of a vector
    int flags;          // 1 float data, 2 16-bit data; 4 is set when the codebook is complete
    void** ppCentroids; // the leaves' centroids by cell - 1; they belong to the clusters
    KTCluster* pRoot;
    // Beyond the tree itself:
    KTCluster* pNewest;
    KTDescent* pDescent; // the tree in the form that quantising runs over; null for long vectors
};
