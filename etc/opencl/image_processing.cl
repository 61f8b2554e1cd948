// Image kernels of the frame path. Both run over a two-dimensional global range of
// (width, height), one work item per pixel, with no local range; the input is the region of
// interest, one byte per pixel, row after row, and the output has the same shape.

// Edge pixels reuse their nearest neighbour inside the region.
inline int pixelAt(__global const uchar* image, int x, int y, int width, int height)
{
    x = clamp(x, 0, width - 1);
    y = clamp(y, 0, height - 1);
    return image[y * width + x];
}

// A sharpened copy of the region whose first byte is replaced by the region's mean intensity
// (truncated). No local range is given, so no work-group reduction can be relied on: the
// first work item sums the region on its own.
__kernel void processImage(__global const uchar* input, __global uchar* output, int width,
                           int height)
{
    const int x = get_global_id(0);
    const int y = get_global_id(1);
    if (x >= width || y >= height)
        return;

    if (x == 0 && y == 0) {
        ulong sum = 0;
        const int size = width * height;
        for (int i = 0; i < size; ++i)
            sum += input[i];
        output[0] = (uchar)(sum / (ulong)size);
        return;
    }

    const int centre = pixelAt(input, x, y, width, height);
    const int sharpened = 5 * centre - pixelAt(input, x - 1, y, width, height) -
                          pixelAt(input, x + 1, y, width, height) -
                          pixelAt(input, x, y - 1, width, height) -
                          pixelAt(input, x, y + 1, width, height);
    output[y * width + x] = (uchar)clamp(sharpened, 0, 255);
}

// Exact integer square root, so that every device gives the same bytes.
inline int floorSqrt(int value)
{
    int root = (int)sqrt((float)value);
    while (root * root > value)
        --root;
    while ((root + 1) * (root + 1) <= value)
        ++root;
    return root;
}

// The Sobel gradient magnitude, saturated at 255.
__kernel void sobelFilter(__global const uchar* input, __global uchar* output, int width,
                          int height)
{
    const int x = get_global_id(0);
    const int y = get_global_id(1);
    if (x >= width || y >= height)
        return;

    const int a = pixelAt(input, x - 1, y - 1, width, height);
    const int b = pixelAt(input, x, y - 1, width, height);
    const int c = pixelAt(input, x + 1, y - 1, width, height);
    const int d = pixelAt(input, x - 1, y, width, height);
    const int f = pixelAt(input, x + 1, y, width, height);
    const int g = pixelAt(input, x - 1, y + 1, width, height);
    const int h = pixelAt(input, x, y + 1, width, height);
    const int i = pixelAt(input, x + 1, y + 1, width, height);
    const int gx = (c + 2 * f + i) - (a + 2 * d + g);
    const int gy = (g + 2 * h + i) - (a + 2 * b + c);
    output[y * width + x] = (uchar)min(floorSqrt(gx * gx + gy * gy), 255);
}
