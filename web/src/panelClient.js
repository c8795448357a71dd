// The page's way to the panel service: the npm thrift package's client for the generated
// PanelService, in the Thrift JSON protocol, over POST /thrift of the egwd that served the page.
// The browser's session is a cookie that POST /session sets.
import { XHRConnection, TJSONProtocol, TBufferedTransport, createXHRClient } from 'thrift';
import PanelService from 'egw-rpc/PanelService.js';
import rpc from 'egw-rpc/panelService_types.js';

export { rpc };

const THRIFT_JSON = 'application/vnd.apache.thrift.json';
// A call that has no answer by then is taken as a lost connection (the longest poll is shorter).
const CALL_TIMEOUT_MS = 15000;

// The panel service cannot be reached, or no longer knows the page's session.
export class ConnectionLost extends Error {}

// The thrift package's XHR connection leaves a call unanswered when the HTTP status is not 200;
// this one sends with fetch and fails the call instead.
class PageConnection extends XHRConnection {
    write(buffer, seqid) {
        fetch('/thrift', {
            method: 'POST',
            headers: { 'Content-Type': THRIFT_JSON },
            body: buffer,
            credentials: 'same-origin',
            signal: AbortSignal.timeout(CALL_TIMEOUT_MS),
        })
            .then(async (response) => {
                const text = await response.text();
                if (!response.ok) {
                    throw new ConnectionLost(`the panel service answered ${response.status}: ${text.trim()}`);
                }
                this.setRecvBuffer(text);
            })
            .catch((error) => this.fail(seqid, error));
    }

    fail(seqid, error) {
        const lost = error instanceof ConnectionLost ? error : new ConnectionLost(error.message ?? String(error));
        const pending = this.client._reqs;
        for (const id of seqid == null ? Object.keys(pending) : [seqid]) {
            const callback = pending[id];
            delete pending[id];
            callback?.(lost);
        }
    }
}

// Starts a session of this browser and returns its client.
export async function openSession() {
    let response;
    try {
        response = await fetch('/session', {
            method: 'POST',
            headers: { 'Content-Type': THRIFT_JSON },
            credentials: 'same-origin',
            signal: AbortSignal.timeout(CALL_TIMEOUT_MS),
        });
    } catch (error) {
        throw new ConnectionLost(error.message);
    }
    if (!response.ok) {
        throw new ConnectionLost(`the panel service answered ${response.status}: ${(await response.text()).trim()}`);
    }
    const connection = new PageConnection(location.hostname, location.port, {
        transport: TBufferedTransport,
        protocol: TJSONProtocol,
        path: '/thrift',
    });
    return createXHRClient(PanelService, connection);
}

// Every uuid, id and time arrives as a 64-bit integer object; the panel's values fit a number.
export const num = (value) => (typeof value === 'number' ? value : value == null ? 0 : value.toNumber(true));

export const hex = (id) => `0x${num(id).toString(16).toUpperCase()}`;
