// The npm thrift package is node code: in the browser it gets the buffer package's Buffer and the
// little of node's process that its helpers touch.
export { Buffer } from 'buffer';
export const process = {
    env: {},
    versions: {},
    browser: true,
    nextTick: (callback, ...args) => queueMicrotask(() => callback(...args)),
};
