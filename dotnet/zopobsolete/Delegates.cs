namespace zopobsolete
{
    /// <summary>What an error listener is told, and what it answers.</summary>
    public class BackupCopyErrorEvent
    {
        /// <summary>Makes one without a message, not to be ignored.</summary>
        public BackupCopyErrorEvent()
        {
        }

        /// <summary>Makes one with a message.</summary>
        public BackupCopyErrorEvent(string msg, bool val)
        {
            message = msg;
            ignore = val;
        }

        /// <summary>What failed, and why.</summary>
        public string message;

        /// <summary>Set by a listener to pass over the failed item and go on.</summary>
        public bool ignore;
    }

    /// <summary>An item failed.</summary>
    public delegate void ErrorDelegate(BackupCopyErrorEvent ee);
}
