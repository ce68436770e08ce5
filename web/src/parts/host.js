// The choice of a host, where the page reads the store of a fleet; it is part of the address.
import { html } from '../html.js';
import { useQuestion } from '../data.js';
import { address, chosenHost, go } from '../router.js';

export function HostChoice({ path, parameters }) {
  const { data: hosts = [] } = useQuestion('hosts', { host: '' });
  const chosen = chosenHost();
  const names = !chosen || hosts.includes(chosen) ? hosts : [chosen, ...hosts];
  return html`<label class="range">Host
    <select value=${chosen} onChange=${event => go(address(path, { ...parameters, host: event.target.value }))}>
      <option value="">All hosts</option>${names.map(name => html`<option key=${name} value=${name}>${name}</option>`)}
    </select></label>`;
}
