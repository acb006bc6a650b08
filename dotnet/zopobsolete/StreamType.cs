using System;

namespace zopobsolete
{
    /// <summary>The kinds of NTFS stream that a copy carries over. None stands for all of them.</summary>
    [Flags]
    public enum StreamType
    {
        /// <summary>The contents of files.</summary>
        Data = 0x01,
        /// <summary>Extended attributes.</summary>
        EAData = 0x02,
        /// <summary>Security descriptors.</summary>
        SecurityData = 0x04,
        /// <summary>Alternate data streams.</summary>
        AlternateData = 0x08,
        /// <summary>Property data.</summary>
        PropertyData = 0x10,
        /// <summary>Object identifiers.</summary>
        ObjectId = 0x20,
        /// <summary>Links and other reparse points.</summary>
        ReparseData = 0x40,
    }
}
