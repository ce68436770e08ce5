// Getting in: by the link that quorbit web prints, or by its token or password.
import { useEffect, useState } from 'preact/hooks';
import { logIn } from '../api.js';
import { html } from '../html.js';
import { go } from '../router.js';

export function Login({ onEntry }) {
  const [error, setError] = useState('');
  const enter = async token => {
    try {
      await logIn(token);
      if (location.pathname === '/login') go('/', { replace: true });
      onEntry();
    } catch (refused) {
      setError(refused.message);
    }
  };
  useEffect(() => {
    const token = location.hash.slice(1);
    if (!token || location.pathname !== '/login') return;
    history.replaceState(null, '', '/login'); // the link works once: it need not stay in sight
    enter(token);
  }, []);
  const submit = event => {
    event.preventDefault();
    enter(event.target.elements.token.value.trim());
  };
  return html`
    <main class="login">
      <h1>Quorbit</h1>
      <p>Open the link that <code>quorbit web</code> has printed. It lets one browser in; any other shows the token or password.</p>
      <form onSubmit=${submit}>
        <label for="token">Token or password</label>
        <input id="token" name="token" type="password" autocomplete="current-password" required />
        <button>Log in</button>
      </form>
      <p class="error" role="alert">${error}</p>
    </main>`;
}
