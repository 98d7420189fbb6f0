/**
 * @param {Uint8Array} bytes the whole file
 * @returns {ImageInfo}
 */
export function inspectImage(bytes: Uint8Array): ImageInfo;
export type ImageInfo = {
    format: "jpeg" | "png" | "gif" | "webp" | "unknown";
    /**
     * 0 when unknown
     */
    width: number;
    /**
     * 0 when unknown
     */
    height: number;
    bytes: number;
    /**
     * the server keeps it as a background
     */
    valid: boolean;
    /**
     * why not ("" when valid)
     */
    reason: string;
};
